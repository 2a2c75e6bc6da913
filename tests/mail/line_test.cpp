// The line transport against scripted peers, and the SMTP session record.

#include <dlfcn.h>
#include <netdb.h>
#include <string.h>
#include <time.h>
#include <unistd.h>

#include <string>

#include "mail_test.h"
#include "sockets.h"

// Names that begin with "kel-" don't resolve, without asking any resolver.
extern "C" struct hostent *gethostbyname(const char *name) {
  if (strncmp(name, "kel-", 4) == 0) return nullptr;
  using Real = struct hostent *(*)(const char *);
  static Real real = reinterpret_cast<Real>(dlsym(RTLD_NEXT, "gethostbyname"));
  return real(name);
}

namespace {

class Line : public mt::Mail {};

TEST_F(Line, ReaderCutsLinesOnlyAtCrLfOrTheLimit) {
  std::string longLine(2000, 'A');
  kt::TcpPeer peer;
  int32_t s = mt::connect(peer, "S- " + longLine + "\\r\\nabc\\r\\na\\nb\\r\\nxyp\\0q\\r\\ntail\nclose");
  struct Step {
    uint32_t size;
    std::string line;
  };
  const Step steps[] = {
      {1024, std::string(1023, 'A')},  // cut by the limit, no CR LF
      {1024, std::string(977, 'A') + "\r\n"},
      {5, "abc\r"},                    // the limit right behind the CR
      {64, "\na\nb\r\n"},              // an LF alone ends nothing
      {2, "x"},
      {2, "y"},
      {64, std::string("p\0q\r\n", 5)},  // a NUL is stored like any byte
  };
  char buffer[1024];
  for (const Step &step : steps) {
    memset(buffer, 'z', sizeof buffer);
    ASSERT_EQ(kelMAILRecvOneLine(s, buffer, step.size), KEL_OK) << step.line;
    EXPECT_EQ(std::string(buffer, step.line.size() + 1), step.line + '\0');
  }
  EXPECT_EQ(kelMAILRecvOneLine(s, buffer, 64), KEL_MAIL_ERR_IO);  // closed mid-line
  EXPECT_EQ(std::string(buffer, 4), "tail");
  EXPECT_EQ(kelMAILRecvOneLine(s, buffer, 64), KEL_MAIL_ERR_IO);  // closed before
  EXPECT_EQ(kelMAILRecvOneLine(s, buffer, 1), KEL_MAIL_ERR_IO);
  kelMAILCloseSocket(s);
  EXPECT_TRUE(peer.finish()) << peer.failure();
}

TEST_F(Line, SendsExactlyTheStringAndReportsFailures) {
  kt::TcpPeer peer;
  int32_t s = mt::connect(peer, "C: USER kel\nclose");
  EXPECT_EQ(kelMAILSendData(s, ""), KEL_OK);
  EXPECT_EQ(kelMAILSendData(s, "USER kel\r\n"), KEL_OK);
  ASSERT_TRUE(peer.finish()) << peer.failure();
  EXPECT_EQ(peer.received(), "USER kel\r\n");
  // The peer is gone: a send fails sooner or later, never with SIGPIPE.
  kelResult r = KEL_OK;
  for (int i = 0; i < 50 && r == KEL_OK; i++) r = kelMAILSendData(s, "NOOP\r\n");
  EXPECT_EQ(r, KEL_MAIL_ERR_IO);
  kelMAILCloseSocket(s);
  EXPECT_EQ(kelMAILSendData(-1, "x"), KEL_MAIL_ERR_IO);
}

TEST_F(Line, ConnectFailuresLeaveTheCellAsDocumented) {
  int32_t cell = 77;
  EXPECT_EQ(kelMAILConnect(&cell, "kel-unresolvable", 25), KEL_MAIL_ERR_HOST);
  EXPECT_EQ(cell, 77);
  EXPECT_EQ(kelMAILConnect(&cell, "127.0.0.1", kt::closedPort()), KEL_MAIL_ERR_CONNECT);
  ASSERT_GE(cell, 0);  // the caller's to close
  kelMAILCloseSocket(cell);
  kt::FullListener full;
  ASSERT_TRUE(full.ok());
  EXPECT_EQ(kelMAILConnect(&cell, "127.0.0.1", full.port()), KEL_MAIL_ERR_CONNECT_TIMEOUT);
  EXPECT_EQ(cell, -1);
}

TEST_F(Line, SilenceOfTenSecondsTimesOut) {
  kt::TcpPeer peer;
  int32_t s = mt::connect(peer, "S- +O\nstall 10600");
  char buffer[64];
  EXPECT_EQ(kelMAILRecvOneLine(s, buffer, sizeof buffer), KEL_MAIL_ERR_IO_TIMEOUT);
  kelMAILCloseSocket(s);
  peer.finish();
}

TEST_F(Line, SessionRecordAndItsBoundary) {
  for (size_t failAt = 1; failAt <= 5; failAt++) {
    kelMAILSession *s = static_cast<kelMAILSession *>(kelMAILAlloc(sizeof(kelMAILSession)));
    ASSERT_NE(s, nullptr);
    size_t before = kelHostPoolBytesInUse();
    kelHostPoolFailAt(failAt);
    time_t now = time(nullptr);
    kelResult r = kelMAILInitSmtpSession(s);
    kelHostPoolFailAt(0);
    EXPECT_EQ(s->socket, -1);
    EXPECT_EQ(s->partState, KEL_MAIL_PART_STATE_CLOSED);
    if (failAt <= 4) {
      EXPECT_EQ(r, KEL_MAIL_ERR_MEMORY);
    } else {
      ASSERT_EQ(r, KEL_OK);
      EXPECT_EQ(kelHostPoolBytesInUse() - before, 2u * 1024 + 64 + 256);
      char want[2][64];
      for (int i = 0; i < 2; i++)  // the clock may tick in between
        snprintf(want[i], 64, "(T_T)boundary_%08lX(T_T)", static_cast<unsigned long>(now + i));
      EXPECT_TRUE(strcmp(s->boundary, want[0]) == 0 || strcmp(s->boundary, want[1]) == 0)
          << s->boundary;
      EXPECT_EQ(s->toList, nullptr);
      EXPECT_EQ(s->toCount + s->ccCount + s->bccCount, 0);
    }
    kelMAILFreeSmtpSession(s);
  }
}

}  // namespace
