// The FTP client against scripted servers: the control channel, the command
// exchanges, data connections and transfers. A case is two texts: the
// server's side as a transcript (transcript.h) and the client's calls with
// their results.
//
// The server's side also knows, with "|" ending a line as well:
//   <text        "S: text"         >text      "C: text"
//   login        greeting, USER u answered 230, PWD answered "/home"
//   pasv CONN    PASV answered with a listener of the peer; the client's
//                connection to it becomes CONN
//   port CONN    PASV refused with 502, then PORT heard with the address of
//                the client's end of the control connection; the variable
//                CONN.port holds the announced port for "connect CONN.port CONN"
//
// The calls, separated by "|", each "call arguments = result" (no "= ..."
// means ok); arguments are separated by blanks, "-" is an empty one:
//   attach             the control connection alone, no greeting, flags 0
//   connect            log in as u with password p
//   put/append/get D F the protocol opens (image, file, stream)
//   wopen/ropen D F    the application's opens (no F: no file record)
//   write TEXT, read [TEXT]   (read: to the end; the bytes must be TEXT)
//   wclose, rclose, delete D F, abort, end
//   TYPE 3, CWD d, PORT, PASV, STOR f ...   one command exchange
//   final-put          the final reply after a store's data connection ended
//   flags = N, sockets = CDL (1: control, data, listener open), sep = C,
//   names = DIRECTORY,FILE (the transfer's names kept in the session)

#include <arpa/inet.h>
#include <signal.h>
#include <string.h>

#include <map>
#include <sstream>

#include <gtest/gtest.h>

#include "ftp/ftp_internal.h"
#include "pool_guard.h"
#include "sockets.h"
#include "transcript.h"

namespace {

// Time-out of a session that is never meant to wait one out, and of one
// that is: only the latter costs its time.
constexpr int kWaitMs = 1500;
constexpr int kShortMs = 200;

const std::map<std::string, kelResult> kResults = {
    {"ok", KEL_OK}, {"closing", KEL_FTPC_SERVICE_CLOSING}, {"syntax", KEL_FTPC_BAD_COMMAND},
    {"ready", KEL_FTPC_NOT_READY}, {"notimpl", KEL_FTPC_NOT_IMPLEMENTED}, {"busy", KEL_FTPC_FILE_BUSY},
    {"name", KEL_FTPC_BAD_FILE_NAME}, {"account", KEL_FTPC_NEED_ACCOUNT}, {"store", KEL_FTPC_STORE_FAILED},
    {"retr", KEL_FTPC_RETRIEVE_FAILED}, {"gone", KEL_FTPC_UNAVAILABLE}, {"nodata", KEL_FTPC_NO_DATA_CONNECTION},
    {"full", KEL_FTPC_NO_STORAGE}, {"login", KEL_FTPC_BAD_LOGIN}, {"pass", KEL_FTPC_NEED_PASSWORD},
    {"dele", KEL_FTPC_DELETE_FAILED}, {"odd", KEL_FTPC_BAD_REPLY}, {"active", KEL_FTPC_ALREADY_ACTIVE},
    {"notclosed", KEL_FTPC_NOT_CLOSED}, {"wrong", KEL_FTPC_WRONG_TRANSFER}, {"iofail", KEL_FTPC_IO_FAILED},
    {"connfail", KEL_FTPC_CONNECT_FAILED}, {"timeout", KEL_FTPC_IO_TIMEOUT}};

void script(kt::TcpPeer &p, const std::string &text) {
  p.stepTimeoutMs = 3000;
  // Server lines in a row go out in one send, so that what the client finds
  // at its next wait doesn't hang on how fast the peer's thread runs.
  std::istringstream lines(text);
  std::string replies;
  for (std::string line; std::getline(lines, line, '|');) {
    std::string word, conn;
    std::istringstream(line) >> word >> conn;
    if (word[0] == '<') {
      replies += line.substr(1) + "\\r\\n";
      continue;
    }
    if (!replies.empty()) kt::play(p, "S- " + replies), replies.clear();
    if (word == "login") line = "S: 220 ready\nC: USER u\nS: 230 in\nC: PWD\nS: 257 \"/home\" is current";
    if (word == "pasv") {
      uint16_t port = p.listen(conn + "L");
      line = "C: PASV\nS: 227 Entering Passive Mode (127,0,0,1," + std::to_string(port >> 8) + "," +
             std::to_string(port & 0xff) + ").\naccept " + conn + "L " + conn;
    }
    if (word[0] == '>') line = "C: " + line.substr(1);
    if (word == "port") line = "C: PASV\nS: 502 not here";
    kt::play(p, line);
    if (word == "port") p.expectLine("PORT 127,0,0,1,(\\d+,\\d+)\r\n", {conn + ".port"});
  }
  if (!replies.empty()) kt::play(p, "S- " + replies);
}

// One call of the calls' text; true when the session is gone.
bool call(kelFTPCSession *s, const std::string &item) {
  SCOPED_TRACE(item);
  size_t eq = item.find('=');
  std::string op, x, y, want = "ok", got;
  std::istringstream(item.substr(0, eq)) >> op >> x >> y;
  if (eq != std::string::npos) std::istringstream(item.substr(eq + 1)) >> want;
  for (std::string *a : {&x, &y}) *a = *a == "-" ? "" : kt::unescape(*a);
  std::map<std::string, std::string> state = {
      {"flags", std::to_string(s->flags)}, {"sep", std::string(1, s->pathSeparator)},
      {"sockets", {"01"[s->controlSocket != -1], "01"[s->dataSocket != -1], "01"[s->listenSocket != -1]}},
      {"names", std::string(s->transferDirectory, strnlen(s->transferDirectory, 128)) + "," +
                    std::string(s->transferFile, strnlen(s->transferFile, 128))}};
  if (state.count(op)) {
    EXPECT_EQ(state[op], want);
    return false;
  }
  using Named = kelResult (*)(kelFTPCSession *, const char *);
  using Numbered = kelResult (*)(kelFTPCSession *, int);
  using Opening = kelResult (*)(kelFTPCSession *, const char *, const char *, int, int, int);
  static const std::map<std::string, Named> named = {
      {"CWD", kelFTPCCommandReplyCWD}, {"XCWD", kelFTPCCommandReplyXCWD}, {"DELE", kelFTPCCommandReplyDELE},
      {"STOR", kelFTPCCommandReplySTOR}, {"APPE", kelFTPCCommandReplyAPPE}, {"RETR", kelFTPCCommandReplyRETR},
      {"USER", kelFTPCCommandReplyUSER}, {"PASS", kelFTPCCommandReplyPASS}};
  static const std::map<std::string, Numbered> numbered = {
      {"TYPE", kelFTPCCommandReplyTYPE}, {"STRU", kelFTPCCommandReplySTRU}, {"MODE", kelFTPCCommandReplyMODE}};
  static const std::map<std::string, Opening> opening = {
      {"put", kelFTPCProtoPutOpen}, {"append", kelFTPCProtoAppendOpen}, {"get", kelFTPCProtoGetOpen}};
  kelResult r = KEL_FTPC_BAD_COMMAND;
  kelFTPCFileRecord file = {x.c_str(), y.c_str()};
  uint32_t address, count = 1;
  uint16_t port;
  char directory[64], buffer[7];
  if (named.count(op)) r = named.at(op)(s, x.c_str());
  else if (numbered.count(op)) r = numbered.at(op)(s, atoi(x.c_str()));
  else if (opening.count(op)) r = opening.at(op)(s, x.c_str(), y.c_str(), 1, 1, 3);
  else if (op == "attach") {
    kelFTPCOpenSocket(&s->controlSocket);
    r = kelFTPCConnectSocket(&s->controlSocket, kt::loopback(), s->port, s->timeoutMs);
  }
  else if (op == "connect") r = kelFTPCProtoConnect(s, "127.0.0.1", "u", "p");
  else if (op == "wopen") r = kelFTPCWriteOpen(s, y.empty() ? nullptr : &file);
  else if (op == "ropen") r = kelFTPCReadOpen(s, y.empty() ? nullptr : &file);
  else if (op == "write") r = kelFTPCWrite(s, x.data(), static_cast<uint32_t>(x.size()));
  else if (op == "read")  // to the end, in small pieces
    while ((r = kelFTPCRead(s, buffer, sizeof buffer, &count)) == KEL_OK && count != 0) got.append(buffer, count);
  else if (op == "wclose") r = kelFTPCWriteClose(s);
  else if (op == "rclose") r = kelFTPCReadClose(s);
  else if (op == "delete") r = kelFTPCProtoDelete(s, x.c_str(), y.c_str());
  else if (op == "abort") r = kelFTPCAbortEnd(s);
  else if (op == "end") r = kelFTPCEnd(s);
  else if (op == "PORT") r = kelFTPCCommandReplyPORT(s, inet_addr("10.1.2.3"), 1234);
  else if (op == "PASV") r = kelFTPCCommandReplyPASV(s, &address, &port);
  else if (op == "QUIT") r = kelFTPCCommandReplyQUIT(s);
  else if (op == "PWD") r = kelFTPCCommandReplyPWD(s, directory, sizeof directory);
  else if (op == "XPWD") r = kelFTPCCommandReplyXPWD(s, directory, sizeof directory);
  else if (op == "final-put") r = (s->dataSocket = socket(AF_INET, SOCK_STREAM, 0), kelFTPCProtoPutClose(s));
  else ADD_FAILURE() << "unknown call";
  EXPECT_EQ(r, kResults.at(want));
  EXPECT_EQ(kt::printable(got), kt::printable(op == "read" ? x : ""));
  return op == "abort" || op == "end";
}

using Ftp = kt::PoolGuard;

// A case: a fresh peer on the server's text (none when empty), a session to
// it, the calls, then the close; the script must have passed.
void run(const std::string &server, const std::string &calls, int timeoutMs = kWaitMs) {
  kt::TcpPeer peer;
  script(peer, server);
  if (!server.empty()) peer.start();
  kelFTPCSession *s = kelFTPCProtoOpen(peer.port(), timeoutMs);
  std::istringstream items(calls);
  for (std::string item; std::getline(items, item, '|');)
    if (call(s, item)) s = nullptr;
  EXPECT_EQ(s ? kelFTPCProtoClose(s) : KEL_OK, KEL_OK);
  EXPECT_TRUE(peer.finish()) << peer.failure();
}

// All replies arrive at once; each read takes one whole reply and nothing of
// the next, and leaves its last line in the line buffer. A line longer than
// the buffer keeps its first half; the rest runs through the upper half.
TEST_F(Ftp, ReaderTakesOneWholeReplyAtATime) {
  std::string long600 = "257 ";
  while (long600.size() < 600) long600 += static_cast<char>('a' + long600.size() % 26);
  const struct { std::string bytes, last; uint16_t code; } cases[] = {
      {"211-first\r\n211x no end\r\n 211 nor\r\n230 nor\r\n211 end\r\n", "211 end", 211},
      {"-12 negative\r\n", "-12 negative", 65524},
      {"230 ended by LF alone\n", "230 ended by LF alone", 230},
      {"200-\n\n200 after an empty line\r\n", "200 after an empty line", 200},
      {long600.substr(0, 510) + "\r\n", long600.substr(0, 510), 257},
      // The CR lands on byte 511, the LF on byte 256 behind the kept 255.
      {long600.substr(0, 511) + "\r\n", long600.substr(0, 256), 257},
      {long600 + "\r\n", long600.substr(0, 256) + long600.substr(512), 257},
  };
  std::string all;
  for (const auto &c : cases) all += c.bytes;
  kt::TcpPeer peer;
  kt::play(peer, "S- " + kt::printable(all)).start();
  kelFTPCSession *s = kelFTPCProtoOpen(peer.port(), kWaitMs);
  call(s, "attach");
  for (const auto &c : cases) {
    uint16_t code = 0;
    ASSERT_EQ(kelFTPCReceiveResponse(s, &code), KEL_OK);
    EXPECT_EQ(code, c.code);
    EXPECT_EQ(std::string(s->line), c.last);
  }
  EXPECT_EQ(kelFTPCProtoClose(s), KEL_OK);
  EXPECT_TRUE(peer.finish()) << peer.failure();
}

// The login road with the result, the flags and the separator it leaves;
// the close after it sends QUIT exactly when logged in and still connected.
// A logged-in session refuses another connect; one that a refused greeting
// left with flags 0 connects again.
TEST_F(Ftp, LoginRoads) {
  const std::string hi = "<220 hi|>USER u|", in = hi + "<230 in|>PWD|<", bye = "|>QUIT|<221 bye|eof";
  const std::pair<std::string, const char *> cases[] = {
      {hi + "<331 pw|>PASS p|<230 in|>PWD|<257 \"/home\" here" + bye, "connect|flags=3|sep=/|connect=active"},
      {in + "500 no|>XPWD|<257 \"a\\\\b/c\"" + bye, "connect|sep=/"},
      // Only the text between the quotes counts, all of its 128 bytes.
      {in + "257 \"b.c\" in /" + bye, "connect|sep=."},
      {in + "257 \"" + std::string(127, 'a') + "/\"" + bye, "connect|sep=/"},
      // Connecting again gives up the old connection.
      {"<421 busy|eof", "connect=connfail|flags=0|connect=odd"},
  };
  for (const auto &c : cases) run(c.first, c.second, kShortMs);
}

// A session makes SIGPIPE harmless, so that a send into a closed connection
// fails instead of ending the process. A missing password is refused
// before anything happens; a refused connect and one that times out differ.
// A start that fails frees its session again.
TEST_F(Ftp, OpenConnectAndStartChecks) {
  EXPECT_EQ(kelFTPCProtoOpen(21, 0), nullptr);
  signal(SIGPIPE, SIG_DFL);
  kelFTPCSession *s = kelFTPCProtoOpen(0, kShortMs);
  EXPECT_NE(signal(SIGPIPE, SIG_DFL), SIG_DFL);
  EXPECT_EQ(s->port, 21);
  EXPECT_EQ(kelFTPCProtoConnect(s, "127.0.0.1", "u", nullptr), KEL_FTPC_BAD_LOGIN);
  s->port = kt::closedPort();
  EXPECT_EQ(kelFTPCProtoConnect(s, "127.0.0.1", "u", "p"), KEL_FTPC_CONNECT_FAILED);
  EXPECT_EQ(s->controlSocket, -1);
  s->port = kt::fullPort();
  EXPECT_EQ(kelFTPCProtoConnect(s, "127.0.0.1", "u", "p"), KEL_FTPC_CONNECT_TIMEOUT);
  EXPECT_EQ(kelFTPCProtoClose(s), KEL_OK);
  kelHostPoolFailAt(1);
  kelFTPCSession *started = s;
  kelFTPCServerRecord record = {"", "u", "p"};
  EXPECT_EQ(kelFTPCStart(&record, &started), KEL_FTPC_BAD_SESSION);
  EXPECT_EQ(started, nullptr);
  EXPECT_EQ(kelFTPCStart(&record, nullptr), KEL_FTPC_BAD_SESSION);
  EXPECT_EQ(kelFTPCStart(&record, &started), KEL_FTPC_BAD_SERVER);
}

// Each table, up to a "/": the call, what goes out, then reply codes and
// their results.
TEST_F(Ftp, CommandExchanges) {
  const std::string tables =
      "TYPE 3;TYPE I: 421 closing 500 syntax 501 syntax 504 syntax 530 ready 100 odd 200 ok/"
      "CWD d;CWD d: 250 ok 421 closing 501 syntax 530 ready 550 gone 200 odd/XCWD d;XCWD d: 250 ok "
      "421 closing 500 syntax 501 syntax 502 notimpl 530 ready 550 gone/PORT;PORT 10,1,2,3,4,210: 200 ok "
      "421 closing 500 syntax 501 syntax 530 ready/PASV;PASV: 421 closing 500 syntax 501 syntax "
      "502 notimpl 530 ready/DELE f;DELE f: 250 ok 421 closing 450 busy 500 syntax 501 syntax 502 notimpl "
      "530 ready 550 dele/STOR f;STOR f: 110 store 125 ok 150 ok 226 store 250 store 421 closing "
      "425 nodata 426 store 450 busy 451 store 452 full 500 syntax 501 syntax 530 ready 532 account "
      "551 store 552 store 553 name 502 odd/APPE f;APPE f: 502 notimpl 550 name 150 ok 452 full/"
      "RETR f;RETR f: 110 retr 125 ok 150 ok 226 retr 250 retr 421 closing 425 nodata 426 retr 450 busy "
      "451 retr 500 syntax 501 syntax 530 ready 550 gone 452 odd 532 odd/USER u;USER u: 230 ok 331 pass "
      "332 account 421 closing 500 syntax 501 syntax 530 login 202 odd/PASS p;PASS p: 202 ok 230 ok "
      "332 account 421 closing 500 syntax 501 syntax 503 syntax 530 login 331 odd/QUIT;QUIT: 221 ok "
      "500 syntax 200 odd/PWD;PWD: 421 closing 501 syntax 550 gone 530 odd/XPWD;XPWD: 421 closing "
      "500 syntax 501 syntax 502 notimpl 550 gone/final-put;: 110 store 125 store 150 store 226 ok 250 ok "
      "421 closing 425 nodata 426 store 450 busy 451 store 452 full 500 syntax 501 syntax 530 ready "
      "532 account 551 store 553 store 552 odd";
  std::string server, calls = "attach";
  std::istringstream each(tables);
  for (std::string t; std::getline(each, t, '/');) {
    size_t semi = t.find(';'), colon = t.find(':');
    std::string wire = t.substr(semi + 1, colon - semi - 1), code, result;
    for (std::istringstream pairs(t.substr(colon + 1)); pairs >> code >> result;) {
      server += (wire.empty() ? "" : ">" + wire + "|") + "<" + code + " reply|";
      calls += "|" + t.substr(0, semi) + "=" + result;
    }
  }
  run(server + "eof", calls);
  // TYPE, STRU and MODE send nothing for the value last accepted (ASCII,
  // file, stream at the start) nor for a value they refuse; a failed request
  // is asked again. CWD to nowhere sends nothing; 500 and 502 go on with XCWD.
  run(">TYPE I|<504 no|>TYPE I|<200 ok|>TYPE I|<200 ok|>STRU F|<200 ok|>MODE S|<200 ok|>CWD .in|<502 no|"
      ">XCWD .in|<250 ok|>CWD d|<500 what|>XCWD d|<504 no|eof",
      "attach|TYPE 1|STRU 1|MODE 1|STRU 2=syntax|MODE 3=syntax|TYPE 3=syntax|TYPE 3|TYPE 3|TYPE 0=syntax|"
      "TYPE 2=syntax|TYPE 3|STRU 1|MODE 1|CWD -|CWD .|CWD .in|CWD d=odd");
}

// A store and a retrieve in passive mode: TYPE I on the first open only,
// never STRU or MODE, the bytes unchanged both ways, and the state rules
// around them.
TEST_F(Ftp, PassiveStoreThenRetrieve) {
  run("login|>TYPE I|<200 ok|pasv d1|>STOR /home/out/a.bin|<150 go|C-@d1 first\\0second|eof@d1|"
      "<226 stored|pasv d2|>RETR /home/in.txt|<125 go|SX@d2: 00 ff 0d 0a 41|close@d2|<226 sent|"
      ">QUIT|<221 bye|eof",
      "connect|wopen /home/out a.bin|flags=23|names=/home/out,a.bin|read=wrong|write first\\0|write -|"
      "write second|wclose|flags=3|names=,|write x=ready|ropen /home/ in.txt|read \\0\\xff\\r\\nA|"
      "flags=35|read=ready|get - x=notclosed|rclose|flags=3|end");
}

// Active mode after 502 to PASV, with the reply and the server's connection
// in either order or both there before STOR goes out. 150 and no connection:
// the open succeeds without a data connection, the first write fails and
// tears down, and the abort then sends nothing.
TEST_F(Ftp, ActiveMode) {
  for (const char *order : {"<200 port ok|>STOR /home/f|<150 go|stall 50|connect d.port d",
                            "<200 port ok|>STOR /home/f|connect d.port d|stall 50|<150 go",
                            "connect d.port d|<200 port ok|<150 go|>STOR /home/f"})
    run(std::string("login|>TYPE I|<200 ok|port d|") + order + "|C-@d payload|eof@d|<226 done|>QUIT|<221 bye|eof",
        "connect|wopen /home f|sockets=110|write payload|wclose");
  run("login|>TYPE I|<200 ok|port d|<200 port ok|>STOR /home/f|<150 go|eof",
      "connect|put /home f|sockets=100|flags=23|write x=iofail|flags=18|sockets=000|abort", kShortMs);
}

// Composed paths with the backslash learnt at login: a directory ending in
// a separator gets none more; 255 bytes of names pass, 256 are refused
// before anything goes out; an empty directory gives the bare name. A
// second open before the close is refused (the application's open closes
// the transfer under way); a delete may run during a store. The calls' state
// tests on a session that isn't connected.
TEST_F(Ftp, PathsAndOrderOfCalls) {
  const std::string d200(200, 'd'), f55 = " " + std::string(55, 'f'), f56 = f55 + "f";
  run("<220 hi|>USER u|<230 in|>PWD|<257 \"C:\\\\ftp\"|>TYPE I|<200 ok|pasv d|>STOR dir\\\\f|<150 go|>DELE " +
          d200 + "\\\\" + f55.substr(1) + "|<250 gone|eof@d|<226 ok|>DELE f|<550 no|>QUIT|<221 bye|eof",
      "connect|sep=\\|wopen " + d200 + f56 + "=odd|delete " + d200 + f56 + "=odd|wopen dir\\\\ f|"
      "append - f=active|delete " + d200 + f55 + "|wopen dir\\\\ f=active|flags=3|wclose|delete - f=dele");
  run("", "wopen - f=ready|ropen=name|append - f=ready|write x=ready|read=ready|delete - f=ready|wclose|abort");
}

// The abort during a store deletes the file (not when its name filled the
// session's field); during a retrieve QUIT takes the pending reply. A read
// that times out tears every connection down.
TEST_F(Ftp, AbortEnd) {
  const std::string n127(127, 'n'), n128(128, 'n');
  const std::string start = "login|>TYPE I|<200 ok|pasv d|>", bye = ">QUIT|<221 bye|eof";
  run(start + "STOR /home/" + n127 + "|<150 go|eof@d|<426 broken|>DELE /home/" + n127 + "|<250 gone|" + bye,
      "connect|put /home " + n127 + "|abort");
  run(start + "STOR /home/" + n128 + "|<150 go|eof@d|<426 broken|" + bye, "connect|put /home " + n128 + "|abort");
  run(start + "RETR /home/g|<150 go|eof@d|<426 broken|>QUIT|eof", "connect|get /home g|abort=odd");
  run(start + "RETR /home/g|<150 go|eof", "connect|get /home g|read=timeout|sockets=000|flags=34", kShortMs);
  // The end in the middle of a store closes the data connection before QUIT.
  run(start + "STOR /home/f|<150 go|eof@d|" + bye, "connect|put /home f|end");
}

}  // namespace
