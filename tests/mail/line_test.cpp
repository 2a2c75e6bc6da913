// The line transport against a scripted peer, and the SMTP session record.

#include <dlfcn.h>
#include <netdb.h>
#include <string.h>
#include <time.h>

#include "mail_test.h"
#include "sockets.h"

// Names that begin with "kel-" don't resolve, without asking any resolver.
extern "C" struct hostent *gethostbyname(const char *name) {
  using Real = struct hostent *(*)(const char *);
  static Real real = reinterpret_cast<Real>(dlsym(RTLD_NEXT, "gethostbyname"));
  return strncmp(name, "kel-", 4) == 0 ? nullptr : real(name);
}

namespace {

class Line : public mt::Mail {};

// The reader cuts lines only at CR LF or the limit and stores a NUL like any
// byte; the sender sends exactly its string; an end of the connection is an
// I/O failure, never SIGPIPE.
TEST_F(Line, Transport) {
  kt::TcpPeer peer;
  int32_t s = mt::connect(peer, "C: USER kel\nS- " + std::string(2000, 'A') +
                                    "\\r\\nabc\\r\\na\\nb\\r\\nxyp\\0q\\r\\ntail\nclose");
  EXPECT_EQ(kelMAILSendData(s, ""), KEL_OK);
  EXPECT_EQ(kelMAILSendData(s, "USER kel\r\n"), KEL_OK);
  const std::pair<uint32_t, std::string> steps[] = {  // the buffer's size, the line
      {1024, std::string(1023, 'A')}, {1024, std::string(977, 'A') + "\r\n"}, {5, "abc\r"}, {64, "\na\nb\r\n"},
      {2, "x"}, {2, "y"}, {64, std::string("p\0q\r\n", 5)}};
  char buffer[1024];
  for (auto &step : steps) {
    memset(buffer, 'z', sizeof buffer);
    ASSERT_EQ(kelMAILRecvOneLine(s, buffer, step.first), KEL_OK) << step.second;
    EXPECT_EQ(std::string(buffer, step.second.size() + 1), step.second + '\0');
  }
  EXPECT_EQ(kelMAILRecvOneLine(s, buffer, 64), KEL_MAIL_ERR_IO);  // closed mid-line
  EXPECT_EQ(std::string(buffer, 4), "tail");
  EXPECT_EQ(kelMAILRecvOneLine(s, buffer, 64), KEL_MAIL_ERR_IO);  // closed before
  EXPECT_EQ(kelMAILRecvOneLine(s, buffer, 1), KEL_MAIL_ERR_IO);
  ASSERT_TRUE(peer.finish()) << peer.failure();
  kelResult r = KEL_OK;
  for (int i = 0; i < 50 && r == KEL_OK; i++) r = kelMAILSendData(s, "NOOP\r\n");
  EXPECT_EQ(r, KEL_MAIL_ERR_IO);
  kelMAILCloseSocket(s);
  s = -2;
  EXPECT_EQ(kelMAILConnect(&s, "kel-unresolvable", 25), KEL_MAIL_ERR_HOST);
  EXPECT_EQ(s, -2);  // untouched
  EXPECT_EQ(kelMAILConnect(&s, "127.0.0.1", kt::closedPort()), KEL_MAIL_ERR_CONNECT);
  ASSERT_GE(s, 0);  // the caller's to close
  kelMAILCloseSocket(s);
}

// Each allocation may fail; the boundary is made from the clock.
TEST_F(Line, SessionRecord) {
  for (size_t failAt = 1; failAt <= 5; failAt++) {
    auto *s = static_cast<kelMAILSession *>(kelMAILAlloc(sizeof(kelMAILSession)));
    size_t before = kelHostPoolBytesInUse();
    time_t now = time(nullptr);
    kelHostPoolFailAt(failAt);
    EXPECT_EQ(kelMAILInitSmtpSession(s), failAt <= 4 ? KEL_MAIL_ERR_MEMORY : KEL_OK);
    kelHostPoolFailAt(0);
    EXPECT_EQ(s->socket, -1);
    EXPECT_EQ(s->partState, KEL_MAIL_PART_STATE_CLOSED);
    if (failAt == 5) {
      EXPECT_EQ(kelHostPoolBytesInUse() - before, 2u * 1024 + 64 + 256);
      EXPECT_TRUE(s->toList == nullptr && s->toCount + s->ccCount + s->bccCount == 0);
      char want[2][64];  // the clock may tick in between
      for (int i = 0; i < 2; i++)
        snprintf(want[i], 64, "(T_T)boundary_%08lX(T_T)", static_cast<unsigned long>(now + i));
      EXPECT_TRUE(!strcmp(s->boundary, want[0]) || !strcmp(s->boundary, want[1])) << s->boundary;
    }
    kelMAILFreeSmtpSession(s);
  }
}

}  // namespace
