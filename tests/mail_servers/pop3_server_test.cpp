// The POP3 client against a real server (see scripts/servers/dovecot.sh): a
// round per login: STAT, LIST, LAST's answer, RETR byte for byte, DELE then
// QUIT, seen by the next round.

#include <stdlib.h>
#include <string.h>

#include <fstream>

#include "../mail/mail_test.h"

namespace {

class Pop3Server : public mt::Mail {};

TEST_F(Pop3Server, BothLoginsCountListFetchDelete) {
  const char *port = getenv("KEL_POP3_PORT"), *dir = getenv("KEL_POP3_MAILDIR");
  if (port == nullptr || dir == nullptr) GTEST_SKIP() << "no POP3 server (scripts/servers/dovecot.sh)";
  kelHostStatusSetText(KEL_STATUS_POP3_SERVER, getenv("KEL_POP3_HOST"));
  kelHostStatusSetNumber(KEL_STATUS_POP3_PORT, static_cast<uint32_t>(atoi(port)));
  kelHostStatusSetText(KEL_STATUS_POP3_USER, getenv("KEL_POP3_USER"));
  kelHostStatusSetText(KEL_STATUS_POP3_PASSWORD, getenv("KEL_POP3_PASS"));
  std::string body = "From: a@kel\nSubject: big\n\n", wire;
  for (int i = 0; body.size() < 1500; i++) body += (i % 7 ? "line " : ".dot line ") + std::to_string(i) + "\n";
  for (char c : body) wire += c == '\n' ? std::string("\r\n") : std::string(1, c);
  std::ofstream(std::string(dir) + "/new/1000000000.M1P1.kel") << body;
  std::ofstream(std::string(dir) + "/new/1000000001.M2P2.kel") << "Subject: small\n\nhello\n";
  for (bool apop : {false, true}) {
    int32_t s = -1, count = 0;
    ASSERT_EQ(kelMAILConnectPop3Server(&s), KEL_OK);
    ASSERT_EQ(apop ? kelMAILLoginPop3ServerByAPOP(s) : kelMAILLoginPop3Server(s), KEL_OK);
    ASSERT_EQ(kelMAILGetMailCount(s, &count), KEL_OK);
    EXPECT_EQ(count, apop ? 1 : 2);
    uint16_t size = 0;
    ASSERT_EQ(kelMAILGetMailSize(s, 1, &size), KEL_OK);
    EXPECT_EQ(size, apop ? 1 : (wire.size() + 1023) / 1024);
    EXPECT_EQ(kelMAILGetLastMail(s, &count), KEL_MAIL_ERR_REPLY);
    EXPECT_STREQ(kelMAILRecvBuffer, "-ERR Unknown command: LAST\r\n");
    if (!apop) {
      ASSERT_EQ(kelMAILStartMailData(s, 1), KEL_OK);
      std::string got;
      char line[1024];
      while (kelMAILRecvOneLinePop3(s, line, sizeof line) == KEL_OK && strcmp(line, ".\r\n") != 0)
        got += line[0] == '.' ? line + 1 : line;  // the caller removes the stuffing
      EXPECT_EQ(got, wire);
      EXPECT_EQ(kelMAILDeleteMail(s, 1), KEL_OK);
    }
    EXPECT_EQ(kelMAILDisconnectPop3Server(s), KEL_OK);
  }
}

}  // namespace
