// The POP3 client against scripted servers: every call's command and reply
// rules, the logins, what failures leave behind, and the POP3 step of the
// SMTP start.

#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include <functional>
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

TEST_F(Pop3, EveryCallAndItsReplyRules) {
  struct Size {
    const char *listing;  // behind "+OK", to its end
    int32_t asked;
    kelResult result;
    uint16_t size;
  };
  // Units of 1024 rounded up; a later line wins; the low 16 bits; a line
  // that begins with "." ends the listing, whatever follows.
  const Size sizes[] = {{R"(1 100\r\n2 1025\r\n.)", 2, KEL_OK, 2},
                        {R"(2 1025\r\n2 1\r\n.)", 2, KEL_OK, 1},
                        {R"(1 67108864\r\n.)", 1, KEL_OK, 0},
                        {R"(2 0\r\n.)", 2, KEL_MAIL_ERR_UNSUPPORTED, 99},
                        {R"(3 5\r\n.junk)", 4, KEL_MAIL_ERR_UNSUPPORTED, 99},
                        {".", 1, KEL_MAIL_ERR_UNSUPPORTED, 99}};
  std::string script = std::string("S: +OK POP3 server ready ") + kStamp + R"(
      C: APOP mrose a6f0dd348916c9ee9539661f94c75203
      S: +OK maildrop has 2 messages
      C: STAT
      S: +OK 3 4096
      C: STAT
      S: +OK
      C: STAT
      S: +OK  -12 more
      C: STAT
      S: -ERR 9
      C: LAST
      S: +OK 7
      C: LAST
      S: -ERR Unknown command: LAST
)";
  for (const Size &row : sizes) script += std::string("C: LIST\nS: +OK\\r\\n") + row.listing + "\n";
  script += std::string(R"(
      C: LIST
      S: -ERR busy
      C: RETR 2
      S- +OK\r\nSubject: x\r\n\r\n..dot\r\n.\r\n
      C: DELE -1
      S: -ERR no such message
      C: DELE 2
      S: +OK
      C: STAT
      S- +OK 1 )") + std::string(300, 'x') + R"(\r\n
      C: STAT
      C: QUIT
      S: -ERR later
      C: QUIT
      S: +OK bye
      eof)";
  kt::TcpPeer peer;
  int32_t s = connect(peer, script);
  ASSERT_GE(s, 0);
  EXPECT_EQ(kelMAILLoginPop3ServerByAPOP(s), KEL_OK);
  int32_t n = -5;
  const std::pair<kelResult, int32_t> stats[] = {
      {KEL_OK, 3}, {KEL_OK, 0}, {KEL_OK, -12}, {KEL_MAIL_ERR_REPLY, -12}};
  for (auto &want : stats) {
    EXPECT_EQ(kelMAILGetMailCount(s, &n), want.first);
    EXPECT_EQ(n, want.second);
  }
  EXPECT_STREQ(kelMAILRecvBuffer, "-ERR 9\r\n");  // the reply stays
  EXPECT_EQ(kelMAILGetLastMail(s, &n), KEL_OK);
  EXPECT_EQ(n, 7);
  EXPECT_EQ(kelMAILGetLastMail(s, &n), KEL_MAIL_ERR_REPLY);
  for (const Size &row : sizes) {
    uint16_t size = 99;
    EXPECT_EQ(kelMAILGetMailSize(s, row.asked, &size), row.result) << row.listing;
    EXPECT_EQ(size, row.size) << row.listing;
  }
  uint16_t size = 99;
  EXPECT_EQ(kelMAILGetMailSize(s, 1, &size), KEL_MAIL_ERR_REPLY);
  EXPECT_EQ(kelMAILStartMailData(s, 2), KEL_OK);
  std::string message;
  char line[64];
  do {
    ASSERT_EQ(kelMAILRecvOneLinePop3(s, line, sizeof line), KEL_OK);
    message += line;
  } while (strcmp(line, ".\r\n") != 0);
  EXPECT_EQ(message, "Subject: x\r\n\r\n..dot\r\n.\r\n");  // untouched
  EXPECT_EQ(kelMAILDeleteMail(s, -1), KEL_MAIL_ERR_REPLY);
  EXPECT_EQ(kelMAILDeleteMail(s, 2), KEL_OK);
  // A reply over 255 bytes comes in pieces: the rest is the next reply.
  EXPECT_EQ(kelMAILGetMailCount(s, &n), KEL_OK);
  EXPECT_EQ(n, 1);
  EXPECT_EQ(kelMAILGetMailCount(s, &n), KEL_MAIL_ERR_REPLY);
  EXPECT_EQ(kelMAILDisconnectPop3Server(s), KEL_MAIL_ERR_REPLY);  // still open
  EXPECT_STREQ(kelMAILSendBuffer, "QUIT\r\n");
  EXPECT_EQ(kelMAILDisconnectPop3Server(s), KEL_OK);  // closed
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

// Failures before the first byte: memory and settings give everything back
// and send nothing; the connect's own failures leave the cell as documented.
TEST_F(Pop3, FailuresBeforeTheWire) {
  int client = -1, server = -1;
  ASSERT_TRUE(kt::tcpPair(&client, &server));
  using Call = std::function<kelResult()>;
  int32_t cell = -1;
  const Call connect = [&] { return kelMAILConnectPop3Server(&cell); };
  const Call login = [&] { return kelMAILLoginPop3Server(client); };
  const Call apop = [&] { return kelMAILLoginPop3ServerByAPOP(client); };
  snprintf(kelMAILRecvBuffer, 256, "+OK <1@h>\r\n");
  struct Case {
    Call call;
    size_t failAt;
    uint32_t failKey;
    kelResult result;
  };
  const Case cases[] = {
      {connect, 1, 0, KEL_MAIL_ERR_MEMORY},
      {connect, 0, KEL_STATUS_POP3_SERVER, KEL_MAIL_ERR_STATUS},
      {connect, 0, KEL_STATUS_POP3_PORT, KEL_MAIL_ERR_STATUS},
      {login, 1, 0, KEL_MAIL_ERR_MEMORY},
      {login, 2, 0, KEL_MAIL_ERR_MEMORY},
      {login, 0, KEL_STATUS_POP3_USER, KEL_MAIL_ERR_STATUS},
      {login, 0, KEL_STATUS_POP3_PASSWORD, KEL_MAIL_ERR_STATUS},
      {apop, 1, 0, KEL_MAIL_ERR_MEMORY},
      {apop, 2, 0, KEL_MAIL_ERR_MEMORY},
      {apop, 3, 0, KEL_MAIL_ERR_MEMORY},
      {apop, 0, KEL_STATUS_POP3_USER, KEL_MAIL_ERR_STATUS},
      {apop, 0, KEL_STATUS_POP3_PASSWORD, KEL_MAIL_ERR_STATUS},
  };
  for (const Case &c : cases) {
    if (c.failKey != 0) kelHostStatusFail(c.failKey, -9);
    kelHostPoolFailAt(c.failAt);
    EXPECT_EQ(c.call(), c.result) << c.failAt << " " << std::hex << c.failKey;
    kelHostPoolFailAt(0);
    if (c.failKey != 0) kelHostStatusFail(c.failKey, 0);
    EXPECT_EQ(cell, -1);
  }
  char byte;
  EXPECT_EQ(recv(server, &byte, 1, MSG_DONTWAIT), -1);  // nothing was sent
  close(client);
  close(server);
  kelHostStatusSetText(KEL_STATUS_POP3_SERVER, "kel-unresolvable");
  EXPECT_EQ(kelMAILConnectPop3Server(&cell), KEL_MAIL_ERR_HOST);
  EXPECT_EQ(cell, -1);
  kelHostStatusSetText(KEL_STATUS_POP3_SERVER, "127.0.0.1");
  kelHostStatusSetNumber(KEL_STATUS_POP3_PORT, kt::closedPort());
  EXPECT_EQ(kelMAILConnectPop3Server(&cell), KEL_MAIL_ERR_CONNECT);
  ASSERT_GE(cell, 0);
  kelMAILCloseSocket(cell);
  kt::TcpPeer peer;
  kt::play(peer, "S: -ERR go away\neof").start();
  kelHostStatusSetNumber(KEL_STATUS_POP3_PORT, peer.port());
  cell = -1;
  EXPECT_EQ(kelMAILConnectPop3Server(&cell), KEL_MAIL_ERR_REPLY);
  ASSERT_GE(cell, 0);  // open, the greeting in the buffer
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
