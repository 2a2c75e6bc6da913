// The timed socket layer against real sockets on loopback.

#include <dlfcn.h>
#include <fcntl.h>
#include <netdb.h>
#include <string.h>

#include <gtest/gtest.h>

#include "net_internal.h"
#include "sockets.h"
#include "transcript.h"

// The resolver, seen through a counting stand-in: names that begin with
// "kel-" have no address; the rest go on to the system.
static int gResolverCalls = 0;

extern "C" struct hostent *gethostbyname(const char *name) {
  gResolverCalls++;
  using Real = hostent *(*)(const char *);
  return strncmp(name, "kel-", 4) == 0 ? nullptr : reinterpret_cast<Real>(dlsym(RTLD_NEXT, "gethostbyname"))(name);
}

namespace {

int connectTo(int *handle, uint16_t port, int32_t timeoutMs) {
  sockaddr_in a = kt::loopbackAddress(port);
  return kelNETConnectTimeo(handle, reinterpret_cast<sockaddr *>(&a), sizeof a, timeoutMs);
}

// Each call waits once and then makes one real call: a count passes
// through as it is, 0 is the peer's close, -2 the time-out, -1 a failure.
// A refused connect leaves the caller its handle; one that times out
// closes it.
TEST(SocketLayer, TimedCallsOnConnections) {
  kt::TcpPeer peer;
  kt::play(peer, "stall 300\nS- 0123456789\nC- hello\neof").start();
  int client = kelNETSocket(AF_INET, SOCK_STREAM, 0);
  ASSERT_EQ(connectTo(&client, peer.port(), 1000), 0);
  char buffer[100];
  EXPECT_EQ(kelNETRecvTimeo(client, buffer, sizeof buffer, 0, 30), KEL_NET_TIMEOUT);
  EXPECT_EQ(kelNETRecvTimeo(client, buffer, sizeof buffer, 0, -1), 10);
  EXPECT_EQ(kelNETSendTimeo(client, "hello", 5, 0, 1000), 5);
  EXPECT_EQ(kelNETShutdown(client), 0);
  EXPECT_EQ(kelNETRecvTimeo(client, buffer, sizeof buffer, 0, 1000), 0);
  kelNETIgnoreSignals();  // else the send below would end the process
  EXPECT_EQ(kelNETSendTimeo(client, "x", 1, 0, 1000), KEL_NET_ERROR);
  EXPECT_TRUE(peer.finish()) << peer.failure();
  kelNETClose(client);
  // Closed, and out of the wait set's range: refused without a look.
  EXPECT_EQ(kelNETRecvTimeo(client, buffer, sizeof buffer, 0, 100), KEL_NET_ERROR);
  EXPECT_EQ(kelNETSendTimeo(FD_SETSIZE, "x", 1, 0, 100), KEL_NET_ERROR);
  client = kelNETSocket(AF_INET, SOCK_STREAM, 0);
  EXPECT_EQ(connectTo(&client, kt::closedPort(), 2000), KEL_NET_ERROR);
  EXPECT_EQ(kelNETClose(client), 0);
  int before = client = kelNETSocket(AF_INET, SOCK_STREAM, 0);
  EXPECT_EQ(connectTo(&client, kt::fullPort(), 100), KEL_NET_TIMEOUT);
  EXPECT_EQ(client + fcntl(before, F_GETFD), -2) << "the timed-out socket should be closed";
}

// Dotted text never reaches the resolver, but all ones looks like its own
// failure and does; a name without an address leaves all ones.
TEST(SocketLayer, NameLookup) {
  uint32_t address = 0;
  EXPECT_EQ(kelNETGetIpByName("10.1.2.3", &address), 0);
  EXPECT_EQ(gResolverCalls, 0);
  kelNETGetIpByName("255.255.255.255", &address);
  EXPECT_EQ(gResolverCalls, 1);
  EXPECT_EQ(kelNETGetIpByName("kel-none", &address), -1);
  EXPECT_EQ(address, 0xffffffffu);
  EXPECT_EQ(kelNETGetIpByName("localhost", &address), 0);
  EXPECT_EQ(address, kt::loopback());
}

}  // namespace
