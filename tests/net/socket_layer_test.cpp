// The timed socket layer against real sockets on loopback.

#include <arpa/inet.h>
#include <dlfcn.h>
#include <fcntl.h>
#include <netdb.h>
#include <signal.h>
#include <string.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "kel_net_internal.h"
#include "kelnet.h"
#include "sockets.h"

// The resolver, seen through a counting stand-in: names that begin with
// "kel-" are answered here without any lookup, all others go to the system.
static int gResolverCalls = 0;

extern "C" struct hostent *gethostbyname(const char *name) {
  gResolverCalls++;
  static char first[4] = {10, 9, 8, 7};
  static char second[4] = {10, 9, 8, 6};
  static char *two[] = {first, second, nullptr};
  static char *none[] = {nullptr};
  static struct hostent entry;
  if (strncmp(name, "kel-", 4) == 0) {
    if (strcmp(name, "kel-two-addresses") == 0) {
      entry = hostent{const_cast<char *>(name), nullptr, AF_INET, 4, two};
      return &entry;
    }
    if (strcmp(name, "kel-no-addresses") == 0) {
      entry = hostent{const_cast<char *>(name), nullptr, AF_INET, 4, none};
      return &entry;
    }
    return nullptr;
  }
  using Real = struct hostent *(*)(const char *);
  static Real real = reinterpret_cast<Real>(dlsym(RTLD_NEXT, "gethostbyname"));
  return real(name);
}

namespace {

class Pair : public ::testing::Test {
 protected:
  void SetUp() override { ASSERT_TRUE(kt::tcpPair(&client, &server)); }
  void TearDown() override {
    if (client >= 0) close(client);
    if (server >= 0) close(server);
  }
  int client = -1;
  int server = -1;
};

TEST_F(Pair, ZeroTimeOutLooksOnce) {
  char buffer[8];
  EXPECT_EQ(kelNETWaitRead(client, 0), KEL_NET_TIMEOUT);
  EXPECT_EQ(kelNETRecvTimeo(client, buffer, sizeof buffer, 0, 0), KEL_NET_TIMEOUT);
  ASSERT_EQ(send(server, "x", 1, 0), 1);
  // Data sent on loopback is there at once; a look finds it.
  EXPECT_EQ(kelNETWaitRead(client, 1000), 1);
  EXPECT_EQ(kelNETRecvTimeo(client, buffer, sizeof buffer, 0, 0), 1);
  EXPECT_EQ(kelNETWaitWrite(client, 0), 1);
}

TEST_F(Pair, ShortTimeOutExpiresWithoutReceiving) {
  char buffer[8];
  // recv on this blocking socket would never return: -2 shows that it
  // wasn't called.
  EXPECT_EQ(kelNETRecvTimeo(client, buffer, sizeof buffer, 0, 50), KEL_NET_TIMEOUT);
  ASSERT_EQ(send(server, "abc", 3, 0), 3);
  EXPECT_EQ(kelNETRecvTimeo(client, buffer, sizeof buffer, 0, 1000), 3);
  EXPECT_EQ(memcmp(buffer, "abc", 3), 0);
}

TEST_F(Pair, CountsPassThroughUnchanged) {
  ASSERT_EQ(send(server, "0123456789", 10, 0), 10);
  char buffer[100];
  // A short count stays short; nothing loops to fill the buffer.
  EXPECT_EQ(kelNETRecvTimeo(client, buffer, sizeof buffer, 0, 1000), 10);
  EXPECT_EQ(kelNETSendTimeo(client, "hello", 5, 0, 1000), 5);
  EXPECT_EQ(recv(server, buffer, sizeof buffer, 0), 5);
  // A length of 0 sends nothing and counts 0.
  EXPECT_EQ(kelNETSendTimeo(client, "", 0, 0, 1000), 0);
}

TEST_F(Pair, PeerCloseIsZeroNotFailure) {
  close(server);
  server = -1;
  char buffer[8];
  EXPECT_EQ(kelNETRecvTimeo(client, buffer, sizeof buffer, 0, 1000), 0);
}

TEST_F(Pair, ShutdownEndsBothDirections) {
  EXPECT_EQ(kelNETShutdown(client), 0);
  char buffer[8];
  EXPECT_EQ(recv(server, buffer, sizeof buffer, 0), 0);  // the peer sees the end
  EXPECT_EQ(kelNETRecvTimeo(client, buffer, sizeof buffer, 0, 0), 0);
  kelNETIgnoreSignals();
  EXPECT_EQ(kelNETSendTimeo(client, "x", 1, 0, 0), KEL_NET_ERROR);
}

TEST_F(Pair, UdpCallsTimeOutAndPassThrough) {
  int a = kelNETSocket(AF_INET, SOCK_DGRAM, 0);
  int b = kelNETSocket(AF_INET, SOCK_DGRAM, 0);
  sockaddr_in addressB = kt::loopbackAddress(0);
  ASSERT_EQ(kelNETBind(b, reinterpret_cast<sockaddr *>(&addressB), sizeof addressB), 0);
  socklen_t length = sizeof addressB;
  getsockname(b, reinterpret_cast<sockaddr *>(&addressB), &length);
  char buffer[16];
  sockaddr_in from{};
  socklen_t fromLength = sizeof from;
  EXPECT_EQ(kelNETRecvFromTimeo(b, buffer, sizeof buffer, 0,
                                reinterpret_cast<sockaddr *>(&from), &fromLength, 20),
            KEL_NET_TIMEOUT);
  EXPECT_EQ(kelNETSendToTimeo(a, "ping", 4, 0, reinterpret_cast<sockaddr *>(&addressB),
                              sizeof addressB, 1000),
            4);
  EXPECT_EQ(kelNETRecvFromTimeo(b, buffer, sizeof buffer, 0,
                                reinterpret_cast<sockaddr *>(&from), &fromLength, 1000),
            4);
  EXPECT_EQ(from.sin_addr.s_addr, htonl(INADDR_LOOPBACK));
  kelNETClose(a);
  kelNETClose(b);
}

TEST(SocketLayer, BadHandlesAreErrors) {
  char buffer[8];
  EXPECT_EQ(kelNETRecvTimeo(-1, buffer, sizeof buffer, 0, 100), KEL_NET_ERROR);
  EXPECT_EQ(kelNETSendTimeo(-1, "x", 1, 0, 100), KEL_NET_ERROR);
  // Outside the wait set: refused without touching memory beyond it.
  EXPECT_EQ(kelNETRecvTimeo(FD_SETSIZE, buffer, sizeof buffer, 0, 100), KEL_NET_ERROR);
  EXPECT_EQ(kelNETWaitWrite(100000, 100), KEL_NET_ERROR);
  // A handle in range that isn't open: select itself fails.
  int s = socket(AF_INET, SOCK_STREAM, 0);
  close(s);
  EXPECT_EQ(kelNETRecvTimeo(s, buffer, sizeof buffer, 0, 100), KEL_NET_ERROR);
}

TEST(SocketLayer, SelectNeverReturnsZero) {
  fd_set none;
  FD_ZERO(&none);
  EXPECT_EQ(kelNETSelect(0, &none, nullptr, nullptr, 10), KEL_NET_TIMEOUT);
  EXPECT_EQ(kelNETSelect(0, nullptr, nullptr, nullptr, 0), KEL_NET_TIMEOUT);
}

TEST(SocketLayer, ConnectRefusedKeepsTheHandle) {
  int handle = kelNETSocket(AF_INET, SOCK_STREAM, 0);
  ASSERT_GE(handle, 0);
  int before = handle;
  sockaddr_in a = kt::loopbackAddress(kt::closedPort());
  EXPECT_EQ(kelNETConnectTimeo(&handle, reinterpret_cast<sockaddr *>(&a), sizeof a, 2000),
            KEL_NET_ERROR);
  EXPECT_EQ(handle, before);
  EXPECT_EQ(kelNETClose(handle), 0);  // still ours to close
}

TEST(SocketLayer, ConnectTimeOutTakesTheHandle) {
  kt::FullListener full;
  ASSERT_TRUE(full.ok()) << "couldn't fill an accept queue";
  int handle = kelNETSocket(AF_INET, SOCK_STREAM, 0);
  int before = handle;
  sockaddr_in a = kt::loopbackAddress(full.port());
  EXPECT_EQ(kelNETConnectTimeo(&handle, reinterpret_cast<sockaddr *>(&a), sizeof a, 200),
            KEL_NET_TIMEOUT);
  EXPECT_EQ(handle, -1);
  EXPECT_EQ(fcntl(before, F_GETFD), -1) << "the timed-out socket should be closed";
}

TEST(SocketLayer, ConnectedSocketServesTimedCalls) {
  int listener = socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in a = kt::loopbackAddress(0);
  socklen_t len = sizeof a;
  ASSERT_EQ(bind(listener, reinterpret_cast<sockaddr *>(&a), sizeof a), 0);
  ASSERT_EQ(listen(listener, 1), 0);
  getsockname(listener, reinterpret_cast<sockaddr *>(&a), &len);
  int handle = kelNETSocket(AF_INET, SOCK_STREAM, 0);
  EXPECT_EQ(kelNETConnectTimeo(&handle, reinterpret_cast<sockaddr *>(&a), sizeof a, 2000), 0);
  EXPECT_EQ(fcntl(handle, F_GETFL) & O_NONBLOCK, 0) << "left non-blocking";
  EXPECT_EQ(kelNETSendTimeo(handle, "hi", 2, 0, 1000), 2);
  close(handle);
  close(listener);
}

TEST(NameLookup, DottedTextNeverReachesTheResolver) {
  uint32_t address = 0;
  gResolverCalls = 0;
  EXPECT_EQ(kelNETGetIpByName("10.1.2.3", &address), 0);
  EXPECT_EQ(gResolverCalls, 0);
  const unsigned char *bytes = reinterpret_cast<const unsigned char *>(&address);
  EXPECT_EQ(bytes[0], 10);
  EXPECT_EQ(bytes[3], 3);
}

TEST(NameLookup, AllOnesGoesOnToTheResolver) {
  uint32_t address = 0;
  gResolverCalls = 0;
  // 255.255.255.255 looks like inet_addr's failure, so the resolver is asked.
  kelNETGetIpByName("255.255.255.255", &address);
  EXPECT_EQ(gResolverCalls, 1);
}

TEST(NameLookup, UnresolvedNameLeavesAllOnes) {
  uint32_t address = 0;
  EXPECT_EQ(kelNETGetIpByName("kel-unresolvable", &address), -1);
  EXPECT_EQ(address, 0xffffffffu);
  address = 0;
  EXPECT_EQ(kelNETGetIpByName("kel-no-addresses", &address), -1);
  EXPECT_EQ(address, 0xffffffffu);
}

TEST(NameLookup, OnlyTheFirstAddressCounts) {
  uint32_t address = 0;
  EXPECT_EQ(kelNETGetIpByName("kel-two-addresses", &address), 0);
  EXPECT_EQ(address, inet_addr("10.9.8.7"));
}

TEST(NameLookup, LocalhostResolves) {
  uint32_t address = 0;
  gResolverCalls = 0;
  EXPECT_EQ(kelNETGetIpByName("localhost", &address), 0);
  EXPECT_EQ(gResolverCalls, 1);
  EXPECT_EQ(address, htonl(INADDR_LOOPBACK));
}

TEST(Signals, BrokenPipeNoLongerEndsTheProcess) {
  pid_t child = fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    signal(SIGPIPE, SIG_DFL);
    kelNETIgnoreSignals();
    struct sigaction now;
    sigaction(SIGPIPE, nullptr, &now);
    if (now.sa_handler == SIG_DFL || now.sa_handler == SIG_IGN) _exit(3);
    int client, server;
    if (!kt::tcpPair(&client, &server)) _exit(4);
    close(server);
    int result = 0;
    for (int i = 0; i < 100 && result >= 0; i++)
      result = kelNETSendTimeo(client, "data", 4, 0, 1000);
    _exit(result == KEL_NET_ERROR ? 0 : 5);
  }
  int status = 0;
  waitpid(child, &status, 0);
  ASSERT_FALSE(WIFSIGNALED(status)) << "ended by signal " << WTERMSIG(status);
  EXPECT_EQ(WEXITSTATUS(status), 0);
}

}  // namespace
