// The POP3 client against scripted servers: every call's command and reply
// rules, the line reader's, the logins, what failures leave behind, and the
// POP3 step of the SMTP start.

#include <stdlib.h>
#include <string.h>

#include "mail_test.h"
#include "sockets.h"

namespace {

class Pop3 : public Mail {};

// One conversation, a row per command: the reply and what the call makes of
// it. Each failure leaves the socket open and usable, the reply and the
// command in their buffers.
TEST_F(Pop3, EveryCallAndItsReplyRules) {
  const std::string long300 = "+OK 1 " + std::string(300, 'x'),
                    retr = R"(+OK\r\n\r\n..dot\r\na\nb\rc\r\n)" + std::string(70, 'x') + R"(\r\n.)";
  const struct {
    const char *command;  // STAT, LAST, LIST n, RETR n, DELE n, QUIT
    const char *reply;    // escaped, without the last CR LF; null: none read
    kelResult result;
    long value;  // then the count (STAT, LAST) or size (LIST; 99: untouched)
  } rows[] = {
      {"STAT", "+OK", KEL_OK, 0}, {"STAT", "+OK  -12", KEL_OK, -12}, {"STAT", "-ERR 9", KEL_MAIL_ERR_REPLY, -12},
      // Units of 1024 rounded up; a later line wins; the low 16 bits; a line
      // that begins with "." ends the listing, whatever follows.
      {"LIST 2", R"(+OK\r\n1 100\r\n2 1025\r\n.)", KEL_OK, 2},
      {"LIST 2", R"(+OK\r\n2 1025\r\n2 1\r\n.)", KEL_OK, 1}, {"LIST 1", R"(+OK\r\n1 67108864\r\n.)", KEL_OK, 0},
      {"LIST 2", R"(+OK\r\n2 0\r\n.)", KEL_MAIL_ERR_UNSUPPORTED, 99},
      {"LIST 4", R"(+OK\r\n3 5\r\n.junk)", KEL_MAIL_ERR_UNSUPPORTED, 99},
      {"LAST", "+OK 7", KEL_OK, 7}, {"RETR 2", retr.c_str(), KEL_OK, 7}, {"DELE 2", "+OK", KEL_OK, 7},
      // A reply over 255 bytes comes in pieces: the rest is the next reply.
      {"STAT", long300.c_str(), KEL_OK, 1}, {"STAT", nullptr, KEL_MAIL_ERR_REPLY, 1},
      {"QUIT", "+OK bye", KEL_OK, 1}};  // closed
  std::string script = "S: +OK POP3 server ready <1896.697170952@dbc.mtview.ca.us>\n"
                       "C: APOP mrose a6f0dd348916c9ee9539661f94c75203\nS: +OK\n";
  for (auto &row : rows)
    script += "C: " + std::string(row.command, strncmp(row.command, "LIST", 4) ? strlen(row.command) : 4) +
              "\n" + (row.reply ? "S: " + std::string(row.reply) + "\n" : "");
  kt::TcpPeer peer;
  kt::play(peer, script + "eof").start();
  kelHostStatusSetText(KEL_STATUS_POP3_SERVER, "127.0.0.1");
  kelHostStatusSetNumber(KEL_STATUS_POP3_PORT, peer.port());
  kelHostStatusSetText(KEL_STATUS_POP3_USER, "mrose");
  kelHostStatusSetText(KEL_STATUS_POP3_PASSWORD, "tanstaafl");
  int32_t s = -1, n = -5;
  ASSERT_EQ(kelMAILConnectPop3Server(&s), KEL_OK);
  ASSERT_EQ(kelMAILLoginPop3ServerByAPOP(s), KEL_OK);
  EXPECT_EQ(kelMAILSendData(s, ""), KEL_OK);  // nothing to send is no failure
  for (auto &row : rows) {  // a peer that failed stops answering: stop at once
    SCOPED_TRACE(row.reply ? row.reply : "(rest)");
    auto is = [&](const char *verb) { return strncmp(row.command, verb, 4) == 0; };
    uint16_t size = 99;
    ASSERT_EQ(is("STAT")   ? kelMAILGetMailCount(s, &n)
              : is("LAST") ? kelMAILGetLastMail(s, &n)
              : is("LIST") ? kelMAILGetMailSize(s, atoi(row.command + 4), &size)
              : is("DELE") ? kelMAILDeleteMail(s, atoi(row.command + 4))
              : is("QUIT") ? kelMAILDisconnectPop3Server(s)
                           : kelMAILStartMailData(s, atoi(row.command + 4)),
              row.result);
    EXPECT_EQ(is("LIST") ? size : n, row.value);
    if (row.result == KEL_MAIL_ERR_REPLY && row.reply) {
      EXPECT_EQ(std::string(kelMAILRecvBuffer), kt::unescape(row.reply) + "\r\n");
      EXPECT_EQ(strncmp(kelMAILSendBuffer, row.command, 4), 0);
    }
    // RETR: the lines as they come, stuffing and all, cut only at CR LF or
    // where they fill the buffer.
    std::string message;
    for (char line[64] = ""; is("RETR") && strcmp(line, ".\r\n") != 0; message += line + std::string("|"))
      ASSERT_EQ(kelMAILRecvOneLinePop3(s, line, sizeof line), KEL_OK);
    EXPECT_EQ(message, !is("RETR") ? "" : "\r\n|..dot\r\n|a\nb\rc\r\n|" + std::string(63, 'x') +
                                            "|xxxxxxx\r\n|.\r\n|");
  }
  EXPECT_TRUE(peer.finish()) << peer.failure();
}

// One connection per row: the logins and their refusals, a refused greeting,
// and the POP3 step of the SMTP start, which always ends with QUIT.
TEST_F(Pop3, LoginsFailuresAndTheStepBeforeSmtp) {
  const std::string stamp250 = "S: +OK<" + std::string(248, 's') + ">";  // 255 bytes with CR LF
  const char *user = "S: +OK\nC: USER mrose\nS: +OK\nC: PASS tanstaafl\nS: +OK\n";
  struct Row {
    char call;           // c: connect, u: USER/PASS, a: APOP, p: the step before SMTP
    std::string script;  // empty: no server
    kelResult result;
    const char *password = "tanstaafl";
    int flag = 1, apop = 0;  // the step's two settings
  };
  const Row rows[] = {
      {'u', user, KEL_OK}, {'u', "S: +OK\nC: USER mrose\nS: +OK\nC: PASS pw\nS: -ERR", KEL_MAIL_ERR_REPLY, "pw"},
      // No stamp, a ">" before the "<", of two stamps the first.
      {'a', "S: +OK ready", KEL_MAIL_ERR_UNSUPPORTED}, {'a', "S: +OK x> <1.2@h", KEL_MAIL_ERR_UNSUPPORTED},
      {'a', "S: +OK <a@h> <b@h>\nC: APOP mrose a45b0befac67111fb3359af790cb35b4\nS: +OK", KEL_OK, "pw"},
      {'a', stamp250 + "\nC: APOP mrose 23ebe30fcb4411d691d8c909f5b2b70a\nS: +OK", KEL_OK, "12345"},
      {'a', stamp250, KEL_MAIL_ERR_UNSUPPORTED, "123456"},  // stamp and secret over 255 bytes
      {'c', "S: -ERR go away", KEL_MAIL_ERR_REPLY}, {'c', "", KEL_MAIL_ERR_CONNECT},
      // The step: off unless its flag is 1, and a failed QUIT still closes.
      {'p', "", KEL_OK, "", 2}, {'p', "S: +OK\nC: USER mrose\nS: -ERR\nC: QUIT\nS: +OK", KEL_MAIL_ERR_REPLY},
      {'p', "S: +OK <9@h>\nC: APOP mrose 9cb584f610df5e594e8fa76391250d65\nS: +OK\nC: QUIT\nS: -ERR but closed",
       KEL_OK, "tanstaafl", 1, 1}};
  for (const Row &row : rows) {
    kt::TcpPeer peer;
    if (!row.script.empty()) kt::play(peer, row.script + "\neof").start();
    kelHostStatusSetText(KEL_STATUS_POP3_SERVER, "127.0.0.1");
    kelHostStatusSetNumber(KEL_STATUS_POP3_PORT, row.script.empty() ? kt::closedPort() : peer.port());
    kelHostStatusSetText(KEL_STATUS_POP3_USER, "mrose");
    kelHostStatusSetText(KEL_STATUS_POP3_PASSWORD, row.password);
    kelHostStatusSetNumber(KEL_STATUS_POP_BEFORE_SMTP, row.flag);
    kelHostStatusSetNumber(KEL_STATUS_POP3_USE_APOP, row.apop);
    int32_t cell = -1;
    ASSERT_EQ(row.call == 'u' || row.call == 'a' ? kelMAILConnectPop3Server(&cell) : KEL_OK, KEL_OK);
    ASSERT_EQ(row.call == 'c'   ? kelMAILConnectPop3Server(&cell)
              : row.call == 'u' ? kelMAILLoginPop3Server(cell)
              : row.call == 'a' ? kelMAILLoginPop3ServerByAPOP(cell)
                                : kelMAILPopBeforeSmtp(),
              row.result) << row.script;
    EXPECT_EQ(cell >= 0, row.call != 'p');  // the caller's to close, also after a failed connect
    if (cell >= 0) kelMAILCloseSocket(cell);
    EXPECT_TRUE(row.script.empty() || peer.finish()) << peer.failure();
  }
}

}  // namespace
