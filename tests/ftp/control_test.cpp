// The control channel: the reply reader, the login road, connect failures
// and the state they leave, and the session's own checks.

#include <signal.h>

#include <string>
#include <vector>

#include "ftp_test.h"

namespace {

using ftpt::kReady;
using ftpt::kShortMs;
using Control = ftpt::Ftp;

// All replies arrive at once; each read takes one whole reply and nothing of
// the next, and leaves its last line in the line buffer. A line longer than
// the buffer keeps its first half; the rest runs through the upper half.
TEST_F(Control, ReaderTakesOneWholeReplyAtATime) {
  std::string long600 = "257 ";
  while (long600.size() < 600) long600 += static_cast<char>('a' + long600.size() % 26);
  const struct { std::string bytes, last; uint16_t code; } cases[] = {
      {"211-first\r\n211x no end\r\n 211 nor\r\n230 nor\r\n211 end\r\n", "211 end", 211},
      {"226\r\n226 after the code alone\r\n", "226 after the code alone", 226},
      {"1234 first\r\n123 last\r\n", "123 last", 1234},
      {"-12 negative\r\n", "-12 negative", 65524},
      {"230 ended by LF alone\n", "230 ended by LF alone", 230},
      {"250 a\rb\r\n", "250 a\rb", 250},
      {"200-\n\n200 after an empty line\r\n", "200 after an empty line", 200},
      {long600.substr(0, 510) + "\r\n", long600.substr(0, 510), 257},
      // The CR lands on byte 511, the LF on byte 256 behind the kept 255.
      {long600.substr(0, 511) + "\r\n", long600.substr(0, 256), 257},
      {long600 + "\r\n", long600.substr(0, 256) + long600.substr(512), 257},
  };
  std::string all;
  for (const auto &c : cases) all += c.bytes;
  kelFTPCSession *s = open("S- " + kt::printable(all));
  ftpt::call(s, "attach", peer_->port());
  for (const auto &c : cases) {
    uint16_t code = 0;
    ASSERT_EQ(kelFTPCReceiveResponse(s, &code), KEL_OK);
    EXPECT_EQ(code, c.code);
    EXPECT_EQ(std::string(s->line), c.last);
  }
  done(s);
}

// A failed first line is a bad reply, a failed later line the reader's own
// code. A time-out tears every connection down; the peer's close doesn't.
TEST_F(Control, ReaderFailures) {
  const struct { const char *road; kelResult want; } cases[] = {
      {"", KEL_FTPC_BAD_REPLY},
      {"S- 22", KEL_FTPC_BAD_REPLY},
      {"S: 220-more\nS: 220", KEL_FTPC_IO_TIMEOUT},
      {"close", KEL_FTPC_BAD_REPLY},
      {"S: 220-more\nclose", KEL_FTPC_IO_FAILED},
  };
  for (const auto &c : cases) {
    kelFTPCSession *s = open(c.road, kShortMs);
    ftpt::call(s, "attach", peer_->port());
    kelFTPCSetState(s, kReady | KEL_FTPC_TRANSFER);
    kelFTPCOpenSocket(&s->dataSocket);
    kelFTPCOpenSocket(&s->listenSocket);
    EXPECT_EQ(kelFTPCReceiveResponse(s, nullptr), c.want) << c.road;
    bool closed = std::string(c.road).find("close") != std::string::npos;
    EXPECT_EQ(s->flags, closed ? kReady | KEL_FTPC_TRANSFER : KEL_FTPC_LOGGED_IN) << c.road;
    EXPECT_EQ((s->controlSocket != -1) + (s->dataSocket != -1) + (s->listenSocket != -1),
              closed ? 3 : 0);
    s->flags = 0;  // no QUIT
    done(s);
  }
}

// The login road with the result, the flags and the separator it leaves;
// the close after it sends QUIT exactly when logged in and still connected.
TEST_F(Control, LoginRoads) {
  const std::string hi = "<220 hi|>USER u|", in = hi + "<230 in|>PWD|<", bye = "|>QUIT|<221 bye|eof";
  const std::pair<std::string, const char *> cases[] = {
      {hi + "<331 pw|>PASS p|<230 in|>PWD|<257 \"/home\" here" + bye, "connect|flags=3|sep=/"},
      {"<220-Hi|<220x no end|< 220 nor|<220 ready|>USER u|<230 in|>PWD|<257 \"C:\\\\ftp\"" + bye, "connect|sep=\\"},
      {in + "257 \"a\\\\b/c\"" + bye, "connect|sep=/"},
      {in + "257 \"SYS.FTP\"" + bye, "connect|sep=."},
      {in + "502 no|>XPWD|<257 \"/x\"" + bye, "connect|sep=/"},
      {in + "500 no|>XPWD|<502 no" + bye, "connect=notimpl|flags=3"},
      {in + "257 \"home\"" + bye, "connect=odd"},
      {in + "257 \"/home" + bye, "connect=odd"},
      // Only the text between the quotes counts, all of its 128 bytes.
      {in + "257 \"b.c\" in /" + bye, "connect|sep=."},
      {in + "257 \"" + std::string(127, 'a') + "/\"" + bye, "connect|sep=/"},
      {hi + "<331 pw|>PASS p|<530 no|eof", "connect=login|flags=1"},
      {hi + "<332 account|eof", "connect=account|flags=1"},
      {"<421 busy|eof", "connect=connfail|flags=0"},
      {"<221 bye|eof", "connect=connfail"},
      {hi + "close", "connect=odd|flags=1"},
  };
  for (const auto &c : cases) run(c.first, c.second, kShortMs);
}

// A session that a refused greeting left with flags 0 connects again and
// gives up the old connection; names of 63 bytes pass, of 64 are refused
// before anything happens; a logged-in session refuses another connect.
TEST_F(Control, ConnectAgainNamesAndFailures) {
  const std::string server63 = "127." + std::string(55, '0') + ".0.1", name63(63, 'n');
  kt::TcpPeer second;
  ftpt::script(second, "<220 hi|>USER " + name63 + "|<331 pw|>PASS " + name63 +
                           "|<230 in|>PWD|<257 \"/\"|>QUIT|<221 bye|eof");
  second.start();
  kelFTPCSession *s = open("<421 busy|eof");
  EXPECT_EQ(kelFTPCProtoConnect(s, "127.0.0.1", "u", "p"), KEL_FTPC_CONNECT_FAILED);
  s->port = second.port();
  EXPECT_EQ(kelFTPCProtoConnect(s, server63.c_str(), name63.c_str(), name63.c_str()), KEL_OK);
  EXPECT_EQ(kelFTPCProtoConnect(s, "127.0.0.1", "u", "p"), KEL_FTPC_ALREADY_ACTIVE);
  done(s);
  EXPECT_TRUE(second.finish()) << second.failure();
  s = kelFTPCProtoOpen(kt::closedPort(), kShortMs);
  const std::string long64(64, 'n'), server64 = "127." + std::string(56, '0') + ".0.1";
  EXPECT_EQ(kelFTPCProtoConnect(s, server64.c_str(), "u", "p"), KEL_FTPC_BAD_SERVER);
  EXPECT_EQ(kelFTPCProtoConnect(s, "", "u", "p"), KEL_FTPC_BAD_SERVER);
  EXPECT_EQ(kelFTPCProtoConnect(s, "127.0.0.1", long64.c_str(), "p"), KEL_FTPC_BAD_LOGIN);
  EXPECT_EQ(kelFTPCProtoConnect(s, "127.0.0.1", "u", nullptr), KEL_FTPC_BAD_LOGIN);
  EXPECT_EQ(kelFTPCProtoConnect(s, "127.0.0.1", "u", "p"), KEL_FTPC_CONNECT_FAILED);
  EXPECT_EQ(s->controlSocket, -1);
  kt::FullListener full;
  s->port = full.port();
  EXPECT_EQ(kelFTPCProtoConnect(s, "127.0.0.1", "u", "p"), KEL_FTPC_CONNECT_TIMEOUT);
  EXPECT_EQ(kelFTPCProtoClose(s), KEL_OK);
}

// A session makes SIGPIPE harmless, so that a send into a closed connection
// fails instead of ending the process.
TEST_F(Control, OpenAndSessionChecks) {
  EXPECT_EQ(kelFTPCProtoOpen(21, 0), nullptr);
  signal(SIGPIPE, SIG_DFL);
  kelFTPCSession *s = kelFTPCProtoOpen(0, 1);
  EXPECT_NE(signal(SIGPIPE, SIG_DFL), SIG_DFL);
  EXPECT_EQ(s->port, 21);
  s->magic ^= 1;  // a foreign object is refused
  EXPECT_EQ(kelFTPCProtoClose(s), KEL_FTPC_BAD_SESSION);
  s->magic ^= 1;
  EXPECT_EQ(kelFTPCProtoClose(s), KEL_OK);
  kelHostPoolFailAt(1);
  EXPECT_EQ(kelFTPCProtoOpen(21, 300), nullptr);
  kelHostPoolFailAt(1);
  kelFTPCSession *started = s;
  kelFTPCServerRecord record = {"127.0.0.1", "u", "p"}, empty = {"", "u", "p"};
  EXPECT_EQ(kelFTPCStart(&record, &started), KEL_FTPC_BAD_SESSION);
  EXPECT_EQ(started, nullptr);
  EXPECT_EQ(kelFTPCStart(&record, nullptr), KEL_FTPC_BAD_SESSION);
  // A start refused by its arguments frees its session again.
  EXPECT_EQ(kelFTPCStart(&empty, &started), KEL_FTPC_BAD_SERVER);
}

}  // namespace
