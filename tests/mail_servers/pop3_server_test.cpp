// The POP3 client against a real server (see tests/servers/dovecot.sh): both
// logins, STAT, LIST sizes, RETR compared byte for byte, DELE then QUIT,
// LAST, a refused login and the POP3 step of the SMTP start.

#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <string>

#include "kel_status.h"
#include "mail/mail_internal.h"
#include "pool_guard.h"

namespace {

class Pop3Server : public kt::PoolGuard {
 protected:
  void SetUp() override {
    kt::PoolGuard::SetUp();
    const char *port = getenv("KEL_POP3_PORT"), *dir = getenv("KEL_POP3_MAILDIR");
    if (port == nullptr || dir == nullptr) GTEST_SKIP() << "no POP3 server (tests/servers/dovecot.sh)";
    maildir = dir;
    kelHostStatusReset();
    kelHostStatusSetText(KEL_STATUS_POP3_SERVER, getenv("KEL_POP3_HOST"));
    kelHostStatusSetNumber(KEL_STATUS_POP3_PORT, static_cast<uint32_t>(atoi(port)));
    kelHostStatusSetText(KEL_STATUS_POP3_USER, getenv("KEL_POP3_USER"));
    kelHostStatusSetText(KEL_STATUS_POP3_PASSWORD, getenv("KEL_POP3_PASS"));
  }
  // Stores a message in the mailbox; returns it as it travels, with CR LF.
  std::string deliver(const std::string &name, const std::string &body) {
    FILE *f = fopen((maildir + "/new/" + name).c_str(), "w");
    fputs(body.c_str(), f);
    fclose(f);
    std::string wire;
    for (char c : body) wire += c == '\n' ? std::string("\r\n") : std::string(1, c);
    return wire;
  }
  int32_t login(bool apop) {
    int32_t s = -1;
    EXPECT_EQ(kelMAILConnectPop3Server(&s), KEL_OK);
    EXPECT_EQ(apop ? kelMAILLoginPop3ServerByAPOP(s) : kelMAILLoginPop3Server(s), KEL_OK);
    return s;
  }
  std::string maildir;
};

TEST_F(Pop3Server, ReadListFetchDeleteWithBothLogins) {
  std::string big = "From: a@kel\nSubject: big\n\n";
  for (int i = 0; big.size() < 1500; i++) big += (i % 7 == 0 ? ".dot line " : "line ") + std::to_string(i) + "\n";
  const std::string wire = deliver("1000000000.M1P1.kel", big);
  deliver("1000000001.M2P2.kel", "From: b@kel\nSubject: small\n\nhello\n.\n");
  int32_t s = login(false), count = 0, last = 0;
  ASSERT_EQ(kelMAILGetMailCount(s, &count), KEL_OK);
  EXPECT_EQ(count, 2);
  uint16_t size1 = 0, size2 = 0;
  ASSERT_EQ(kelMAILGetMailSize(s, 1, &size1), KEL_OK);
  ASSERT_EQ(kelMAILGetMailSize(s, 2, &size2), KEL_OK);
  EXPECT_EQ(size1, (wire.size() + 1023) / 1024);
  EXPECT_EQ(size2, 1);
  uint16_t none = 7;
  EXPECT_EQ(kelMAILGetMailSize(s, 3, &none), KEL_MAIL_ERR_UNSUPPORTED);
  EXPECT_EQ(kelMAILGetLastMail(s, &last), KEL_MAIL_ERR_REPLY);
  EXPECT_STREQ(kelMAILRecvBuffer, "-ERR Unknown command: LAST\r\n");
  ASSERT_EQ(kelMAILStartMailData(s, 1), KEL_OK);
  std::string got;
  char line[1024];
  for (;;) {
    ASSERT_EQ(kelMAILRecvOneLinePop3(s, line, sizeof line), KEL_OK);
    if (strcmp(line, ".\r\n") == 0) break;
    got += line[0] == '.' ? line + 1 : line;  // the caller removes the stuffing
  }
  EXPECT_EQ(got, wire);
  EXPECT_EQ(kelMAILDeleteMail(s, 1), KEL_OK);
  EXPECT_EQ(kelMAILDisconnectPop3Server(s), KEL_OK);
  s = login(true);
  ASSERT_EQ(kelMAILGetMailCount(s, &count), KEL_OK);
  EXPECT_EQ(count, 1);  // the deleted one is gone
  EXPECT_EQ(kelMAILDisconnectPop3Server(s), KEL_OK);
  kelHostStatusSetNumber(KEL_STATUS_POP_BEFORE_SMTP, 1);
  kelHostStatusSetNumber(KEL_STATUS_POP3_USE_APOP, 1);
  EXPECT_EQ(kelMAILPopBeforeSmtp(), KEL_OK);
  kelHostStatusSetText(KEL_STATUS_POP3_PASSWORD, "wrong");
  EXPECT_EQ(kelMAILPopBeforeSmtp(), KEL_MAIL_ERR_REPLY);
  kelHostStatusSetNumber(KEL_STATUS_POP3_USE_APOP, 0);
  EXPECT_EQ(kelMAILPopBeforeSmtp(), KEL_MAIL_ERR_REPLY);
}

}  // namespace
