// The POP3 client against scripted servers: every call's command and reply
// rules, the logins, what failures leave behind, and the POP3 step of the
// SMTP start.

#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include <string>

#include "mail_test.h"
#include "sockets.h"

namespace {

class Pop3 : public mt::Mail {
 protected:
  void SetUp() override {
    mt::Mail::SetUp();
    settings();
  }
  void settings() {
    kelHostStatusReset();
    kelHostStatusSetText(KEL_STATUS_POP3_SERVER, "127.0.0.1");
    kelHostStatusSetText(KEL_STATUS_POP3_USER, "mrose");
    kelHostStatusSetText(KEL_STATUS_POP3_PASSWORD, "tanstaafl");
  }
  // Starts peer with script (its greeting first) and connects to it.
  int32_t connect(kt::TcpPeer &peer, const std::string &script) {
    kt::play(peer, script);
    peer.start();
    kelHostStatusSetNumber(KEL_STATUS_POP3_PORT, peer.port());
    int32_t cell = -1;
    EXPECT_EQ(kelMAILConnectPop3Server(&cell), KEL_OK);
    return cell;
  }
};

const char kStamp[] = "<1896.697170952@dbc.mtview.ca.us>";

// One conversation, a row per command: what goes out, what comes back, what
// the call makes of it. Each failure leaves the socket open and usable.
TEST_F(Pop3, EveryCallAndItsReplyRules) {
  struct Row {
    char call;  // S: STAT, L: LAST, Z: LIST, R: RETR, D: DELE, Q: QUIT
    int32_t number;
    const char *reply;  // escaped, without the last CR LF
    kelResult result;
    long value;  // count, or size (99: untouched)
  };
  const std::string long300 = "+OK 1 " + std::string(300, 'x');
  const Row rows[] = {
      {'S', 0, "+OK 3 4096", KEL_OK, 3},  // the first number only
      {'S', 0, "+OK", KEL_OK, 0},
      {'S', 0, "+OK  -12 more", KEL_OK, -12},
      {'S', 0, "-ERR 9", KEL_MAIL_ERR_REPLY, -12},
      {'L', 0, "+OK 7", KEL_OK, 7},
      {'L', 0, "-ERR Unknown command: LAST", KEL_MAIL_ERR_REPLY, 7},
      // Units of 1024 rounded up; a later line wins; the low 16 bits; a line
      // that begins with "." ends the listing, whatever follows.
      {'Z', 2, R"(+OK\r\n1 100\r\n2 1025\r\n.)", KEL_OK, 2},
      {'Z', 2, R"(+OK\r\n2 1025\r\n2 1\r\n.)", KEL_OK, 1},
      {'Z', 1, R"(+OK\r\n1 67108864\r\n.)", KEL_OK, 0},
      {'Z', 2, R"(+OK\r\n2 0\r\n.)", KEL_MAIL_ERR_UNSUPPORTED, 99},
      {'Z', 4, R"(+OK\r\n3 5\r\n.junk)", KEL_MAIL_ERR_UNSUPPORTED, 99},
      {'Z', 1, R"(+OK\r\n.)", KEL_MAIL_ERR_UNSUPPORTED, 99},
      {'Z', 1, "-ERR busy", KEL_MAIL_ERR_REPLY, 99},
      {'R', 2, R"(+OK\r\nSubject: x\r\n\r\n..dot\r\n.)", KEL_OK, 0},
      {'D', -1, "-ERR no such message", KEL_MAIL_ERR_REPLY, 0},
      {'D', 2, "+OK", KEL_OK, 0},
      // A reply over 255 bytes comes in pieces: the rest is the next reply.
      {'S', 0, long300.c_str(), KEL_OK, 1},
      {'S', 0, nullptr, KEL_MAIL_ERR_REPLY, 1},
      {'Q', 0, "-ERR later", KEL_MAIL_ERR_REPLY, 0},
      {'Q', 0, "+OK bye", KEL_OK, 0},  // closed
  };
  std::string script = std::string("S: +OK POP3 server ready ") + kStamp +
                       "\nC: APOP mrose a6f0dd348916c9ee9539661f94c75203\nS: +OK\n";
  const char *verbs = "S STAT L LAST Z LIST R RETR D DELE Q QUIT";
  for (const Row &row : rows) {
    std::string verb(strchr(verbs, row.call) + 2, 4);
    if (row.call == 'R' || row.call == 'D') verb += " " + std::to_string(row.number);
    script += "C: " + verb + "\n" + (row.reply ? "S: " + std::string(row.reply) + "\n" : "");
  }
  kt::TcpPeer peer;
  int32_t s = connect(peer, script + "eof");
  ASSERT_GE(s, 0);
  EXPECT_EQ(kelMAILLoginPop3ServerByAPOP(s), KEL_OK);
  int32_t n = -5;
  for (const Row &row : rows) {
    SCOPED_TRACE(row.reply ? row.reply : "(rest)");
    uint16_t size = 99;
    switch (row.call) {
      case 'S': EXPECT_EQ(kelMAILGetMailCount(s, &n), row.result); EXPECT_EQ(n, row.value); break;
      case 'L': EXPECT_EQ(kelMAILGetLastMail(s, &n), row.result); EXPECT_EQ(n, row.value); break;
      case 'Z':
        EXPECT_EQ(kelMAILGetMailSize(s, row.number, &size), row.result);
        EXPECT_EQ(size, row.value);
        break;
      case 'D': EXPECT_EQ(kelMAILDeleteMail(s, row.number), row.result); break;
      case 'Q': EXPECT_EQ(kelMAILDisconnectPop3Server(s), row.result); break;
      case 'R': {
        ASSERT_EQ(kelMAILStartMailData(s, row.number), KEL_OK);
        std::string message;
        char line[64];
        do {
          ASSERT_EQ(kelMAILRecvOneLinePop3(s, line, sizeof line), KEL_OK);
          message += line;
        } while (strcmp(line, ".\r\n") != 0);
        EXPECT_EQ(message, "Subject: x\r\n\r\n..dot\r\n.\r\n");  // untouched
      }
    }
    if (row.result == KEL_MAIL_ERR_REPLY && row.reply) {  // the reply and command stay
      EXPECT_EQ(std::string(kelMAILRecvBuffer), kt::unescape(row.reply) + "\r\n");
      EXPECT_EQ(strncmp(kelMAILSendBuffer, strchr(verbs, row.call) + 2, 4), 0);
    }
  }
  EXPECT_TRUE(peer.finish()) << peer.failure();
}

TEST_F(Pop3, LoginsAndTheirRefusals) {
  struct Case {
    const char *greeting;
    const char *secret;
    bool apop;
    const char *script;  // after the greeting
    kelResult result;
  };
  const std::string stamp250 = "<" + std::string(248, 's') + ">";
  const Case cases[] = {
      {"+OK ready", "pw", false, "C: USER mrose\nS: +OK\nC: PASS pw\nS: +OK in", KEL_OK},
      {"+OK ready", "pw", false, "C: USER mrose\nS: -ERR who", KEL_MAIL_ERR_REPLY},
      {"+OK ready", "pw", false, "C: USER mrose\nS: +OK\nC: PASS pw\nS: -ERR no", KEL_MAIL_ERR_REPLY},
      {"+OK ready", "pw", true, "", KEL_MAIL_ERR_UNSUPPORTED},
      {"+OK x> <1.2@h", "pw", true, "", KEL_MAIL_ERR_UNSUPPORTED},
      {"+OK <a@h> <b@h>", "pw", true, "C: APOP mrose a45b0befac67111fb3359af790cb35b4\nS: +OK",
       KEL_OK},
      {"+OK 250", "12345", true, "C: APOP mrose 23ebe30fcb4411d691d8c909f5b2b70a\nS: +OK", KEL_OK},
      {"+OK 250", "123456", true, "", KEL_MAIL_ERR_UNSUPPORTED},
  };
  for (const Case &c : cases) {
    std::string greeting = c.greeting;
    if (greeting == "+OK 250") greeting = "+OK" + stamp250;  // 255 bytes with CR LF
    kelHostStatusSetText(KEL_STATUS_POP3_PASSWORD, c.secret);
    kt::TcpPeer peer;
    int32_t s = connect(peer, "S: " + greeting + "\n" + c.script + "\neof");
    EXPECT_EQ(c.apop ? kelMAILLoginPop3ServerByAPOP(s) : kelMAILLoginPop3Server(s), c.result)
        << c.greeting << " " << c.script;
    kelMAILCloseSocket(s);
    EXPECT_TRUE(peer.finish()) << peer.failure();
  }
  EXPECT_STREQ(kelMAILSendBuffer, "APOP mrose 23ebe30fcb4411d691d8c909f5b2b70a\r\n");
}

// Failures before the first byte send nothing and give everything back; a
// refused greeting leaves the socket open with the reply in the buffer.
TEST_F(Pop3, FailuresBeforeTheWire) {
  int client = -1, server = -1;
  ASSERT_TRUE(kt::tcpPair(&client, &server));
  int32_t cell = -1;
  snprintf(kelMAILRecvBuffer, 256, "+OK <1@h>\r\n");
  struct Case {
    char call;  // c: connect, l: USER/PASS, a: APOP
    size_t failAt;
    uint32_t failKey;
  };
  const Case cases[] = {{'c', 1, 0}, {'c', 0, KEL_STATUS_POP3_SERVER}, {'c', 0, KEL_STATUS_POP3_PORT},
                        {'l', 1, 0}, {'l', 2, 0}, {'l', 0, KEL_STATUS_POP3_USER},
                        {'l', 0, KEL_STATUS_POP3_PASSWORD}, {'a', 1, 0}, {'a', 2, 0}, {'a', 3, 0},
                        {'a', 0, KEL_STATUS_POP3_USER}, {'a', 0, KEL_STATUS_POP3_PASSWORD}};
  for (const Case &c : cases) {
    if (c.failKey != 0) kelHostStatusFail(c.failKey, -9);
    kelHostPoolFailAt(c.failAt);
    kelResult r = c.call == 'c'   ? kelMAILConnectPop3Server(&cell)
                  : c.call == 'l' ? kelMAILLoginPop3Server(client)
                                  : kelMAILLoginPop3ServerByAPOP(client);
    EXPECT_EQ(r, c.failAt ? KEL_MAIL_ERR_MEMORY : KEL_MAIL_ERR_STATUS) << c.call << c.failAt;
    kelHostPoolFailAt(0);
    if (c.failKey != 0) kelHostStatusFail(c.failKey, 0);
    EXPECT_EQ(cell, -1);
  }
  char byte;
  EXPECT_EQ(recv(server, &byte, 1, MSG_DONTWAIT), -1);  // nothing was sent
  close(client);
  close(server);
  kt::TcpPeer peer;
  kt::play(peer, "S: -ERR go away\neof").start();
  kelHostStatusSetNumber(KEL_STATUS_POP3_PORT, peer.port());
  EXPECT_EQ(kelMAILConnectPop3Server(&cell), KEL_MAIL_ERR_REPLY);
  ASSERT_GE(cell, 0);
  EXPECT_STREQ(kelMAILRecvBuffer, "-ERR go away\r\n");
  kelMAILCloseSocket(cell);
  EXPECT_TRUE(peer.finish()) << peer.failure();
}

TEST_F(Pop3, StepBeforeSmtp) {
  struct Case {
    int flag, apop;
    size_t failAt;
    const char *script;  // null: no server at all
    kelResult result;
  };
  const Case cases[] = {
      {0, 1, 0, nullptr, KEL_OK},
      {2, 1, 0, nullptr, KEL_OK},
      {1, 0, 1, nullptr, KEL_MAIL_ERR_MEMORY},
      {1, 0, 0, "S: +OK\nC: USER mrose\nS: +OK\nC: PASS tanstaafl\nS: +OK\nC: QUIT\nS: +OK", KEL_OK},
      {1, 0, 0, "S: +OK\nC: USER mrose\nS: -ERR\nC: QUIT\nS: +OK", KEL_MAIL_ERR_REPLY},
      {1, 0, 2, "S: +OK\nC: QUIT\nS: +OK", KEL_MAIL_ERR_MEMORY},
      {1, 1, 0, "S: +OK <9@h>\nC: APOP mrose 9cb584f610df5e594e8fa76391250d65\nS: +OK\n"
                "C: QUIT\nS: -ERR but closed anyway", KEL_OK},
      {1, 1, 0, "S: -ERR <9@h>\nC: QUIT\nS: +OK", KEL_MAIL_ERR_REPLY},
  };
  for (const Case &c : cases) {
    settings();
    kelHostStatusSetNumber(KEL_STATUS_POP_BEFORE_SMTP, c.flag);
    kelHostStatusSetNumber(KEL_STATUS_POP3_USE_APOP, c.apop);
    kt::TcpPeer peer;
    if (c.script) kt::play(peer, std::string(c.script) + "\neof").start();
    kelHostStatusSetNumber(KEL_STATUS_POP3_PORT, c.script ? peer.port() : kt::closedPort());
    kelHostPoolFailAt(c.failAt);
    EXPECT_EQ(kelMAILPopBeforeSmtp(), c.result) << c.flag << " " << (c.script ? c.script : "");
    kelHostPoolFailAt(0);
    EXPECT_EQ(kelHostStatusReads(KEL_STATUS_POP3_USE_APOP), c.flag == 1 ? 1u : 0u);
    EXPECT_TRUE(!c.script || peer.finish()) << peer.failure();
  }
  kelHostStatusSetNumber(KEL_STATUS_POP_BEFORE_SMTP, 1);
  kelHostStatusSetNumber(KEL_STATUS_POP3_PORT, kt::closedPort());
  EXPECT_EQ(kelMAILPopBeforeSmtp(), KEL_MAIL_ERR_CONNECT);
  kelHostStatusFail(KEL_STATUS_POP3_USE_APOP, -1);
  EXPECT_EQ(kelMAILPopBeforeSmtp(), KEL_MAIL_ERR_STATUS);
  kelHostStatusFail(KEL_STATUS_POP_BEFORE_SMTP, -1);
  EXPECT_EQ(kelMAILPopBeforeSmtp(), KEL_MAIL_ERR_STATUS);
}

}  // namespace
