// The line transport and the POP3 client against scripted servers: every
// call's command and reply rules, the logins, what failures leave behind, and
// the POP3 step of the SMTP start.

#include <stdlib.h>
#include <string.h>

#include "mail_test.h"
#include "sockets.h"

namespace {

class Pop3 : public mt::Mail {};

// The reader cuts lines only at CR LF or the limit and stores a NUL like any
// byte; the sender sends exactly its string; an end of the connection is an
// I/O failure, never SIGPIPE.
TEST_F(Pop3, LineTransport) {
  kt::TcpPeer peer;
  const std::string lines = std::string(2000, 'A') + "\\r\\nabc\\r\\na\\nb\\r\\nxyp\\0q\\r\\ntail";
  kt::play(peer, "C: USER kel\nS- " + lines + "\nclose").start();
  int32_t s = -1;
  ASSERT_EQ(kelMAILConnect(&s, "127.0.0.1", peer.port()), KEL_OK);
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
  ASSERT_TRUE(peer.finish()) << peer.failure();
  kelResult r = KEL_OK;
  for (int i = 0; i < 50 && r == KEL_OK; i++) r = kelMAILSendData(s, "NOOP\r\n");
  EXPECT_EQ(r, KEL_MAIL_ERR_IO);
  kelMAILCloseSocket(s);
  EXPECT_EQ(kelMAILConnect(&s, "127.0.0.1", kt::closedPort()), KEL_MAIL_ERR_CONNECT);
  kelMAILCloseSocket(s);  // the caller's to close
}

// One conversation, a row per command: the reply and what the call makes of
// it. Each failure leaves the socket open and usable, the reply and the
// command in their buffers.
TEST_F(Pop3, EveryCallAndItsReplyRules) {
  const std::string long300 = "+OK 1 " + std::string(300, 'x');
  const struct {
    const char *command;  // STAT, LAST, LIST n, RETR n, DELE n, QUIT
    const char *reply;    // escaped, without the last CR LF; null: none read
    kelResult result;
    long value;  // then the count (STAT, LAST) or size (LIST; 99: untouched)
  } rows[] = {
      {"STAT", "+OK 3 4096", KEL_OK, 3}, {"STAT", "+OK", KEL_OK, 0}, {"STAT", "+OK  -12 more", KEL_OK, -12},
      {"STAT", "-ERR 9", KEL_MAIL_ERR_REPLY, -12}, {"LAST", "+OK 7", KEL_OK, 7},
      // Units of 1024 rounded up; a later line wins; the low 16 bits; a line
      // that begins with "." ends the listing, whatever follows.
      {"LIST 2", R"(+OK\r\n1 100\r\n2 1025\r\n.)", KEL_OK, 2},
      {"LIST 2", R"(+OK\r\n2 1025\r\n2 1\r\n.)", KEL_OK, 1}, {"LIST 1", R"(+OK\r\n1 67108864\r\n.)", KEL_OK, 0},
      {"LIST 2", R"(+OK\r\n2 0\r\n.)", KEL_MAIL_ERR_UNSUPPORTED, 99},
      {"LIST 4", R"(+OK\r\n3 5\r\n.junk)", KEL_MAIL_ERR_UNSUPPORTED, 99},
      {"RETR 2", R"(+OK\r\nSubject: x\r\n\r\n..dot\r\n.)", KEL_OK, 7}, {"DELE 2", "+OK", KEL_OK, 7},
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
  for (auto &row : rows) {  // a peer that failed stops answering: stop at once
    SCOPED_TRACE(row.reply ? row.reply : "(rest)");
    auto is = [&](const char *verb) { return strncmp(row.command, verb, 4) == 0; };
    int32_t number = atoi(row.command + 4);
    uint16_t size = 99;
    ASSERT_EQ(is("STAT")   ? kelMAILGetMailCount(s, &n)
              : is("LAST") ? kelMAILGetLastMail(s, &n)
              : is("LIST") ? kelMAILGetMailSize(s, number, &size)
              : is("DELE") ? kelMAILDeleteMail(s, number)
              : is("QUIT") ? kelMAILDisconnectPop3Server(s)
                           : kelMAILStartMailData(s, number),
              row.result);
    EXPECT_EQ(is("LIST") ? size : n, row.value);
    if (row.result == KEL_MAIL_ERR_REPLY && row.reply) {
      EXPECT_EQ(std::string(kelMAILRecvBuffer), kt::unescape(row.reply) + "\r\n");
      EXPECT_EQ(strncmp(kelMAILSendBuffer, row.command, 4), 0);
    }
    std::string message;  // RETR: the lines as they come, stuffing and all
    for (char line[64] = ""; is("RETR") && strcmp(line, ".\r\n") != 0; message += line)
      ASSERT_EQ(kelMAILRecvOneLinePop3(s, line, sizeof line), KEL_OK);
    EXPECT_EQ(message, is("RETR") ? "Subject: x\r\n\r\n..dot\r\n.\r\n" : "");
  }
  EXPECT_TRUE(peer.finish()) << peer.failure();
}

// One connection per row: the logins and their refusals, failures before the
// first byte (they send nothing and give everything back), a refused
// greeting, and the POP3 step of the SMTP start, which always ends with QUIT.
TEST_F(Pop3, LoginsFailuresAndTheStepBeforeSmtp) {
  const std::string stamp250 = "S: +OK<" + std::string(248, 's') + ">";  // 255 bytes with CR LF
  const char *hello = "S: +OK <1@h>", *user = "S: +OK\nC: USER mrose\nS: +OK\nC: PASS tanstaafl\nS: +OK\n";
  struct Row {
    char call;           // c: connect, u: USER/PASS, a: APOP, p: the step before SMTP
    std::string script;  // empty: no server
    kelResult result;
    size_t failAt = 0;
    uint32_t failKey = 0;
    const char *password = "tanstaafl";
    int flag = 1, apop = 0;  // the step's two settings
  };
  const Row rows[] = {
      {'u', user, KEL_OK}, {'u', "S: +OK\nC: USER mrose\nS: -ERR who", KEL_MAIL_ERR_REPLY},
      {'u', "S: +OK\nC: USER mrose\nS: +OK\nC: PASS pw\nS: -ERR no", KEL_MAIL_ERR_REPLY, 0, 0, "pw"},
      // No stamp, a ">" before the "<", of two stamps the first.
      {'a', "S: +OK ready", KEL_MAIL_ERR_UNSUPPORTED}, {'a', "S: +OK x> <1.2@h", KEL_MAIL_ERR_UNSUPPORTED},
      {'a', "S: +OK <a@h> <b@h>\nC: APOP mrose a45b0befac67111fb3359af790cb35b4\nS: +OK", KEL_OK, 0, 0, "pw"},
      {'a', stamp250 + "\nC: APOP mrose 23ebe30fcb4411d691d8c909f5b2b70a\nS: +OK", KEL_OK, 0, 0, "12345"},
      {'a', stamp250, KEL_MAIL_ERR_UNSUPPORTED, 0, 0, "123456"},  // stamp and secret over 255 bytes
      {'c', "", KEL_MAIL_ERR_MEMORY, 1}, {'c', "", KEL_MAIL_ERR_STATUS, 0, KEL_STATUS_POP3_SERVER},
      {'c', "S: -ERR go away", KEL_MAIL_ERR_REPLY}, {'u', hello, KEL_MAIL_ERR_MEMORY, 2},
      {'a', hello, KEL_MAIL_ERR_MEMORY, 3}, {'a', hello, KEL_MAIL_ERR_STATUS, 0, KEL_STATUS_POP3_USER},
      // The step: off unless its flag is 1, and a failed QUIT still closes.
      {'p', "", KEL_OK, 0, 0, "", 2}, {'p', "", KEL_MAIL_ERR_CONNECT},
      {'p', "", KEL_MAIL_ERR_STATUS, 0, KEL_STATUS_POP3_USE_APOP},
      {'p', "S: +OK\nC: USER mrose\nS: -ERR\nC: QUIT\nS: +OK", KEL_MAIL_ERR_REPLY},
      {'p', "S: +OK <9@h>\nC: APOP mrose 9cb584f610df5e594e8fa76391250d65\nS: +OK\nC: QUIT\nS: -ERR but closed",
       KEL_OK, 0, 0, "tanstaafl", 1, 1}};
  for (const Row &row : rows) {
    SCOPED_TRACE(row.script);
    kt::TcpPeer peer;
    if (!row.script.empty()) kt::play(peer, row.script + "\neof").start();
    kelHostStatusReset();
    kelHostStatusSetText(KEL_STATUS_POP3_SERVER, "127.0.0.1");
    kelHostStatusSetNumber(KEL_STATUS_POP3_PORT, row.script.empty() ? kt::closedPort() : peer.port());
    kelHostStatusSetText(KEL_STATUS_POP3_USER, "mrose");
    kelHostStatusSetText(KEL_STATUS_POP3_PASSWORD, row.password);
    kelHostStatusSetNumber(KEL_STATUS_POP_BEFORE_SMTP, row.flag);
    kelHostStatusSetNumber(KEL_STATUS_POP3_USE_APOP, row.apop);
    int32_t cell = -1;
    ASSERT_EQ(row.call == 'u' || row.call == 'a' ? kelMAILConnectPop3Server(&cell) : KEL_OK, KEL_OK);
    kelHostPoolFailAt(row.failAt);
    if (row.failKey != 0) kelHostStatusFail(row.failKey, -9);
    ASSERT_EQ(row.call == 'c'   ? kelMAILConnectPop3Server(&cell)
              : row.call == 'u' ? kelMAILLoginPop3Server(cell)
              : row.call == 'a' ? kelMAILLoginPop3ServerByAPOP(cell)
                                : kelMAILPopBeforeSmtp(),
              row.result);
    kelHostPoolFailAt(0);
    EXPECT_EQ(cell >= 0, row.call == 'c' ? !row.script.empty() : row.call != 'p');  // the caller's to close
    if (cell >= 0) kelMAILCloseSocket(cell);
    EXPECT_TRUE(row.script.empty() || peer.finish()) << peer.failure();
  }
}

}  // namespace
