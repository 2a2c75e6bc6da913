// The timed socket layer against real sockets on loopback.

#include <arpa/inet.h>
#include <dlfcn.h>
#include <fcntl.h>
#include <netdb.h>
#include <string.h>
#include <unistd.h>

#include <thread>

#include <gtest/gtest.h>

#include "net_internal.h"
#include "peer.h"
#include "sockets.h"

// The resolver, seen through a counting stand-in: "kel-two" has two
// addresses, other names that begin with "kel-" none; the rest go on to
// the system.
static int gResolverCalls = 0;

extern "C" struct hostent *gethostbyname(const char *name) {
  gResolverCalls++;
  static char first[4] = {10, 9, 8, 7}, second[4] = {10, 9, 8, 6};
  static char *two[] = {first, second, nullptr};
  static hostent entry = {nullptr, nullptr, AF_INET, 4, two};
  using Real = hostent *(*)(const char *);
  if (strncmp(name, "kel-", 4) == 0) return strcmp(name, "kel-two") == 0 ? &entry : nullptr;
  return reinterpret_cast<Real>(dlsym(RTLD_NEXT, "gethostbyname"))(name);
}

namespace {

// Each call waits once and then makes one real call: a count passes
// through as it is, 0 is the peer's close, -2 the time-out, -1 a failure.
TEST(SocketLayer, TimedCallsOnAConnectedPair) {
  int client, server;
  ASSERT_TRUE(kt::tcpPair(&client, &server));
  char buffer[100];
  EXPECT_EQ(kelNETRecvTimeo(client, buffer, sizeof buffer, 0, 0), KEL_NET_TIMEOUT);
  EXPECT_EQ(kelNETRecvTimeo(client, buffer, sizeof buffer, 0, 30), KEL_NET_TIMEOUT);
  std::thread later([server] { usleep(50000), send(server, "0123456789", 10, 0); });
  EXPECT_EQ(kelNETRecvTimeo(client, buffer, sizeof buffer, 0, -1), 10);
  later.join();
  EXPECT_EQ(kelNETSendTimeo(client, "hello", 5, 0, 1000), 5);
  EXPECT_EQ(kelNETSendTimeo(client, "", 0, 0, 0), 0);
  EXPECT_EQ(kelNETShutdown(client), 0);
  EXPECT_EQ(kelNETRecvTimeo(client, buffer, sizeof buffer, 0, 1000), 0);
  kelNETIgnoreSignals();  // else the send below would end the process
  EXPECT_EQ(kelNETSendTimeo(client, "x", 1, 0, 1000), KEL_NET_ERROR);
  EXPECT_EQ(recv(server, buffer, sizeof buffer, 0), 5);
  kelNETClose(client);
  close(server);
  // Closed, and out of the wait set's range: refused without a look.
  EXPECT_EQ(kelNETRecvTimeo(client, buffer, sizeof buffer, 0, 100), KEL_NET_ERROR);
  EXPECT_EQ(kelNETSendTimeo(FD_SETSIZE, "x", 1, 0, 100), KEL_NET_ERROR);
  EXPECT_EQ(kelNETSelect(0, nullptr, nullptr, nullptr, 10), KEL_NET_TIMEOUT);
}

TEST(SocketLayer, Datagrams) {
  int a = kelNETSocket(AF_INET, SOCK_DGRAM, 0), b = kelNETSocket(AF_INET, SOCK_DGRAM, 0);
  sockaddr_in to = kt::loopbackAddress(kt::closedPort()), from{};
  socklen_t length = sizeof from;
  ASSERT_EQ(kelNETBind(b, reinterpret_cast<sockaddr *>(&to), sizeof to), 0);
  char buffer[16];
  auto receive = [&](int ms) {
    return kelNETRecvFromTimeo(b, buffer, sizeof buffer, 0, reinterpret_cast<sockaddr *>(&from), &length, ms);
  };
  EXPECT_EQ(receive(20), KEL_NET_TIMEOUT);
  EXPECT_EQ(kelNETSendToTimeo(a, "ping", 4, 0, reinterpret_cast<sockaddr *>(&to), sizeof to, 1000), 4);
  EXPECT_EQ(receive(1000), 4);
  EXPECT_EQ(from.sin_addr.s_addr, kt::loopback());
  kelNETClose(a);
  kelNETClose(b);
}

// Refused: the caller keeps the handle. Timed out: the socket is gone.
TEST(SocketLayer, Connect) {
  int handle = kelNETSocket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in a = kt::loopbackAddress(kt::closedPort());
  EXPECT_EQ(kelNETConnectTimeo(&handle, reinterpret_cast<sockaddr *>(&a), sizeof a, 2000), KEL_NET_ERROR);
  EXPECT_EQ(kelNETClose(handle), 0);
  kt::FullListener full;
  ASSERT_TRUE(full.ok());
  int before = handle = kelNETSocket(AF_INET, SOCK_STREAM, 0);
  a = kt::loopbackAddress(full.port());
  EXPECT_EQ(kelNETConnectTimeo(&handle, reinterpret_cast<sockaddr *>(&a), sizeof a, 100), KEL_NET_TIMEOUT);
  EXPECT_EQ(handle + fcntl(before, F_GETFD), -2) << "the timed-out socket should be closed";
}

// Dotted text never reaches the resolver, but all ones looks like its own
// failure and does; only the first address counts; no address leaves all
// ones.
TEST(SocketLayer, NameLookup) {
  uint32_t address = 0;
  EXPECT_EQ(kelNETGetIpByName("10.1.2.3", &address), 0);
  EXPECT_EQ(address, inet_addr("10.1.2.3"));
  EXPECT_EQ(gResolverCalls, 0);
  kelNETGetIpByName("255.255.255.255", &address);
  EXPECT_EQ(gResolverCalls, 1);
  EXPECT_EQ(kelNETGetIpByName("kel-two", &address), 0);
  EXPECT_EQ(address, inet_addr("10.9.8.7"));
  EXPECT_EQ(kelNETGetIpByName("kel-none", &address), -1);
  EXPECT_EQ(address, 0xffffffffu);
  EXPECT_EQ(kelNETGetIpByName("localhost", &address), 0);
  EXPECT_EQ(address, kt::loopback());
}

}  // namespace
