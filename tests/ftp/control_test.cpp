// The control channel: the reply reader, the login road, connect failures
// and the state they leave, and QUIT at close.

#include <string>
#include <vector>

#include "ftp_script.h"
#include "sockets.h"

namespace {

using ftpt::kShortMs;
using ftpt::kWaitMs;
using ftpt::Script;

class Control : public kt::PoolGuard {};

constexpr uint32_t kConnected = KEL_FTPC_CONNECTED;
constexpr uint32_t kLoggedIn = KEL_FTPC_LOGGED_IN;

// All replies arrive at once; each read takes one whole reply and nothing of
// the next, and leaves its last line in the line buffer.
TEST_F(Control, ReaderTakesOneWholeReplyAtATime) {
  std::string long600 = "257 ";
  while (long600.size() < 600) long600 += static_cast<char>('a' + long600.size() % 26);
  std::string long511 = long600.substr(0, 511), long510 = long600.substr(0, 510);
  struct Case {
    std::string bytes;
    uint16_t code;
    std::string last;
  };
  const std::vector<Case> cases = {
      {"220 one line\r\n", 220, "220 one line"},
      {"211-first\r\n211x looks like a code\r\n 211 begins with a blank\r\n"
       "230 another code\r\n211-still open\r\n211 end\r\n",
       211, "211 end"},
      {"226\r\n226 after the code alone\r\n", 226, "226 after the code alone"},
      // The code is read from the first line's first four bytes.
      {"1234 first\r\n123 last\r\n", 1234, "123 last"},
      {"230 ended by LF alone\n", 230, "230 ended by LF alone"},
      {"250 a\rb\r\n", 250, "250 a\rb"},
      {"200-\n\n200 after an empty line\r\n", 200, "200 after an empty line"},
      {long510 + "\r\n", 257, long510},
      // The CR lands on byte 511, the LF on byte 256 behind the kept 255.
      {long511 + "\r\n", 257, long600.substr(0, 256)},
      {long600 + "\r\n", 257, long600.substr(0, 256) + long600.substr(512)},
      {"221 after the long ones\r\n", 221, "221 after the long ones"},
  };
  kt::TcpPeer peer;
  std::string all;
  for (const Case &c : cases) all += c.bytes;
  peer.send(all);
  peer.start();
  kelFTPCSession *s = ftpt::attach(peer);
  ASSERT_NE(s, nullptr);
  for (const Case &c : cases) {
    SCOPED_TRACE(kt::printable(c.bytes.substr(0, 60)));
    uint16_t code = 0;
    ASSERT_EQ(kelFTPCReceiveResponse(s, &code), KEL_OK);
    EXPECT_EQ(code, c.code);
    EXPECT_EQ(std::string(s->line), c.last);
  }
  EXPECT_EQ(kelFTPCProtoClose(s), KEL_OK);
  EXPECT_TRUE(peer.finish()) << peer.failure();
}

// A failed first line is a bad reply, a failed later line the reader's own
// code. Time-outs tear every connection down; the peer's close doesn't.
TEST_F(Control, ReaderFailures) {
  struct Case {
    const char *name;
    std::string bytes;
    bool peerCloses;
    kelResult want;
  };
  const Case cases[] = {
      {"time-out before the first line", "", false, KEL_FTPC_BAD_REPLY},
      {"time-out inside the first line", "22", false, KEL_FTPC_BAD_REPLY},
      {"time-out on a later line", "220-more\r\n", false, KEL_FTPC_IO_TIMEOUT},
      {"the code alone ends nothing", "220-more\r\n220\r\n", false, KEL_FTPC_IO_TIMEOUT},
      {"close before the first line", "", true, KEL_FTPC_BAD_REPLY},
      {"close on a later line", "220-more\r\n220-and more\r\n", true, KEL_FTPC_IO_FAILED},
  };
  for (const Case &c : cases) {
    SCOPED_TRACE(c.name);
    kt::TcpPeer peer;
    if (!c.bytes.empty()) peer.send(c.bytes);
    if (c.peerCloses) peer.close();
    peer.start();
    kelFTPCSession *s = ftpt::attach(peer, kShortMs);
    ASSERT_NE(s, nullptr);
    kelFTPCSetState(s, kConnected | kLoggedIn | KEL_FTPC_TRANSFER);
    ASSERT_NE(kelFTPCOpenSocket(&s->dataSocket), -1);
    ASSERT_NE(kelFTPCOpenSocket(&s->listenSocket), -1);
    uint16_t code = 0;
    EXPECT_EQ(kelFTPCReceiveResponse(s, &code), c.want);
    if (c.peerCloses) {
      EXPECT_EQ(s->flags, kConnected | kLoggedIn | KEL_FTPC_TRANSFER);
      EXPECT_NE(s->controlSocket, -1);
      EXPECT_NE(s->dataSocket, -1);
      EXPECT_NE(s->listenSocket, -1);
      kelFTPCClearState(s, kLoggedIn);  // no QUIT into a closed connection
    } else {
      EXPECT_EQ(s->flags, kLoggedIn);
      EXPECT_EQ(s->controlSocket, -1);
      EXPECT_EQ(s->dataSocket, -1);
      EXPECT_EQ(s->listenSocket, -1);
    }
    EXPECT_EQ(kelFTPCProtoClose(s), KEL_OK);
    EXPECT_TRUE(peer.finish()) << peer.failure();
  }
}

// The login road, one transcript each ("<" the server, ">" the client),
// with the result, the flags and the separator that it leaves. The session
// is closed after each: QUIT goes out exactly when logged in and the control
// connection is still there. "!" at the end: the server closes.
TEST_F(Control, LoginRoads) {
  const std::string hi = "<220 hi|>USER u|";
  struct Case {
    const char *name;
    const char *password;
    std::string road;
    kelResult want;
    uint32_t flags;
    bool controlOpen;
    char separator;
  };
  const Case cases[] = {
      {"230 to USER: no PASS", "p", hi + "<230 in|>PWD|<257 \"/home\" here", 0, 3, true, '/'},
      {"331 then PASS", "p", hi + "<331 pw|>PASS p|<230 in|>PWD|<257 \"/\"", 0, 3, true, '/'},
      {"202 to PASS", "p", hi + "<331 pw|>PASS p|<202 fine|>PWD|<257 \"/\"", 0, 3, true, '/'},
      {"empty password", "", hi + "<331 pw|>PASS |<230 in|>PWD|<257 \"/\"", 0, 3, true, '/'},
      {"greeting in lines", "p",
       "<220-Welcome|<220x not the end|< 220 nor this|<220-|<220 ready|>USER u|<230 in|>PWD|"
       "<257 \"/\"",
       0, 3,
       true, '/'},
      {"backslash", "p", hi + "<230 in|>PWD|<257 \"C:\\ftp\"", 0, 3, true, '\\'},
      {"slash before backslash", "p", hi + "<230 in|>PWD|<257 \"a\\b/c\"", 0, 3, true, '/'},
      {"dot", "p", hi + "<230 in|>PWD|<257 \"SYS.FTP\"", 0, 3, true, '.'},
      {"PWD 500 then XPWD", "p", hi + "<230 in|>PWD|<500 what|>XPWD|<257 \"/x\"", 0, 3, true, '/'},
      {"PWD 502 then XPWD", "p", hi + "<230 in|>PWD|<502 no|>XPWD|<257 \"/x\"", 0, 3, true, '/'},
      {"XPWD 502", "p", hi + "<230 in|>PWD|<502 no|>XPWD|<502 no", KEL_FTPC_NOT_IMPLEMENTED, 3,
       true, 0},
      {"PWD 530", "p", hi + "<230 in|>PWD|<530 who", KEL_FTPC_BAD_REPLY, 3, true, 0},
      {"PWD 550", "p", hi + "<230 in|>PWD|<550 none", KEL_FTPC_UNAVAILABLE, 3, true, 0},
      {"no separator", "p", hi + "<230 in|>PWD|<257 \"home\"", KEL_FTPC_BAD_REPLY, 3, true, 0},
      {"one quote", "p", hi + "<230 in|>PWD|<257 \"/home", KEL_FTPC_BAD_REPLY, 3, true, 0},
      {"332 to USER", "p", hi + "<332 account", KEL_FTPC_NEED_ACCOUNT, 1, true, 0},
      {"332 to PASS", "p", hi + "<331 pw|>PASS p|<332 account", KEL_FTPC_NEED_ACCOUNT, 1, true, 0},
      {"530 to USER", "p", hi + "<530 no", KEL_FTPC_BAD_LOGIN, 1, true, 0},
      {"530 to PASS", "p", hi + "<331 pw|>PASS p|<530 no", KEL_FTPC_BAD_LOGIN, 1, true, 0},
      {"421 to USER", "p", hi + "<421 bye", KEL_FTPC_SERVICE_CLOSING, 1, true, 0},
      {"202 to USER", "p", hi + "<202 odd", KEL_FTPC_BAD_REPLY, 1, true, 0},
      {"999 to PASS", "p", hi + "<331 pw|>PASS p|<999 odd", KEL_FTPC_BAD_REPLY, 1, true, 0},
      {"greeting 120", "p", "<120 soon", KEL_FTPC_CONNECT_FAILED, 0, true, 0},
      {"greeting 421", "p", "<421 busy", KEL_FTPC_CONNECT_FAILED, 0, true, 0},
      {"greeting times out", "p", "", KEL_FTPC_BAD_REPLY, 0, false, 0},
      {"greeting closed", "p", "!", KEL_FTPC_BAD_REPLY, 0, true, 0},
      {"USER times out", "p", hi, KEL_FTPC_BAD_REPLY, 0, false, 0},
      {"USER reply closed", "p", hi + "!", KEL_FTPC_BAD_REPLY, 1, true, 0},
      {"PWD times out", "p", hi + "<230 in|>PWD|<257-\"/\"", KEL_FTPC_IO_TIMEOUT, 2, false, 0},
  };
  for (const Case &c : cases) {
    SCOPED_TRACE(c.name);
    kt::TcpPeer peer;
    Script srv(peer);
    std::string road = c.road;
    bool closes = !road.empty() && road.back() == '!';
    if (closes) road.pop_back();
    if (!road.empty() && road.back() == '|') road.pop_back();
    srv.road(road);
    if (closes) {
      peer.close();
    } else {
      if (c.controlOpen && (c.flags & kLoggedIn)) srv.x("QUIT", "221 bye");
      srv.eof();
    }
    peer.start();
    kelFTPCSession *s = kelFTPCProtoOpen(peer.port(), kShortMs);
    ASSERT_NE(s, nullptr);
    EXPECT_EQ(ftpt::connect(s, "u", c.password), c.want);
    EXPECT_EQ(s->flags, c.flags);
    EXPECT_EQ(s->controlSocket != -1, c.controlOpen);
    EXPECT_EQ(s->pathSeparator, c.separator);
    EXPECT_EQ(kelFTPCProtoClose(s), KEL_OK);
    EXPECT_TRUE(peer.finish()) << peer.failure();
  }
}

// Names of 63 bytes pass, of 64 are refused before anything happens.
TEST_F(Control, NameLimits) {
  // 127.0.0.1 with the second number written in 55 zeros: 63 bytes that
  // need no resolver.
  const std::string server63 = "127." + std::string(55, '0') + ".0.1";
  const std::string server64 = "127." + std::string(56, '0') + ".0.1";
  const std::string name63(63, 'n'), name64(64, 'n');
  ASSERT_EQ(server63.size(), 63u);

  kt::TcpPeer peer;
  Script(peer).say("220 hi").x("USER " + name63, "331 pw").x("PASS " + name63, "230 in")
      .x("PWD", "257 \"/\"").quit();
  peer.start();
  kelFTPCSession *s = kelFTPCProtoOpen(peer.port(), kWaitMs);
  ASSERT_NE(s, nullptr);
  EXPECT_EQ(kelFTPCProtoConnect(s, server63.c_str(), name63.c_str(), name63.c_str()), KEL_OK);
  // A connect on a logged-in session is refused, after copying the names.
  EXPECT_EQ(kelFTPCProtoConnect(s, "127.0.0.1", "other", "pw"), KEL_FTPC_ALREADY_ACTIVE);
  EXPECT_STREQ(s->userName, "other");
  EXPECT_EQ(kelFTPCProtoClose(s), KEL_OK);
  EXPECT_TRUE(peer.finish()) << peer.failure();

  s = kelFTPCProtoOpen(kt::closedPort(), kShortMs);
  ASSERT_NE(s, nullptr);
  struct Refused {
    const char *server, *user, *password;
    kelResult want;
  };
  const Refused refused[] = {
      {server64.c_str(), "u", "p", KEL_FTPC_BAD_SERVER},
      {"", "u", "p", KEL_FTPC_BAD_SERVER},
      {nullptr, "u", "p", KEL_FTPC_BAD_SERVER},
      {"127.0.0.1", name64.c_str(), "p", KEL_FTPC_BAD_LOGIN},
      {"127.0.0.1", nullptr, "p", KEL_FTPC_BAD_LOGIN},
      {"127.0.0.1", "u", name64.c_str(), KEL_FTPC_BAD_LOGIN},
      {"127.0.0.1", "u", nullptr, KEL_FTPC_BAD_LOGIN},
  };
  for (const Refused &r : refused) {
    EXPECT_EQ(kelFTPCProtoConnect(s, r.server, r.user, r.password), r.want);
    EXPECT_EQ(s->flags, 0u);
    EXPECT_EQ(s->controlSocket, -1);
  }
  EXPECT_EQ(kelFTPCProtoClose(s), KEL_OK);
}

TEST_F(Control, ConnectRefusedAndTimedOut) {
  kelFTPCSession *s = kelFTPCProtoOpen(kt::closedPort(), kShortMs);
  ASSERT_NE(s, nullptr);
  EXPECT_EQ(ftpt::connect(s), KEL_FTPC_CONNECT_FAILED);
  EXPECT_EQ(s->flags, 0u);
  EXPECT_EQ(s->controlSocket, -1);
  EXPECT_EQ(kelFTPCProtoClose(s), KEL_OK);

  kt::FullListener full;
  ASSERT_TRUE(full.ok());
  s = kelFTPCProtoOpen(full.port(), kShortMs);
  ASSERT_NE(s, nullptr);
  EXPECT_EQ(ftpt::connect(s), KEL_FTPC_CONNECT_TIMEOUT);
  EXPECT_EQ(s->flags, 0u);
  EXPECT_EQ(s->controlSocket, -1);
  EXPECT_EQ(kelFTPCProtoClose(s), KEL_OK);
}

// A session left with flags 0 may connect again; the new connect gives up
// the control connection that the failed one left open.
TEST_F(Control, ConnectAgainAfterRefusedGreeting) {
  kt::TcpPeer first, second;
  Script(first).say("421 busy").eof();
  Script(second).login().quit();
  first.start();
  second.start();
  kelFTPCSession *s = kelFTPCProtoOpen(first.port(), kWaitMs);
  ASSERT_NE(s, nullptr);
  EXPECT_EQ(ftpt::connect(s), KEL_FTPC_CONNECT_FAILED);
  s->port = second.port();
  EXPECT_EQ(ftpt::connect(s), KEL_OK);
  EXPECT_TRUE(first.finish()) << first.failure();
  EXPECT_EQ(kelFTPCProtoClose(s), KEL_OK);
  EXPECT_TRUE(second.finish()) << second.failure();
}

// The result of close is QUIT's.
TEST_F(Control, CloseGivesQuitsResult) {
  const std::pair<const char *, kelResult> cases[] = {
      {"500 what", KEL_FTPC_BAD_COMMAND}, {"200 odd", KEL_FTPC_BAD_REPLY}};
  for (const auto &c : cases) {
    kt::TcpPeer peer;
    Script(peer).login().x("QUIT", c.first).eof();
    peer.start();
    kelFTPCSession *s = ftpt::loggedIn(peer);
    ASSERT_NE(s, nullptr);
    EXPECT_EQ(kelFTPCProtoClose(s), c.second);
    EXPECT_TRUE(peer.finish()) << peer.failure();
  }
}

TEST_F(Control, OpenAndSessionTests) {
  EXPECT_EQ(kelFTPCProtoOpen(21, 0), nullptr);
  kelFTPCSession *s = kelFTPCProtoOpen(0, 1);
  ASSERT_NE(s, nullptr);
  EXPECT_EQ(s->port, 21);
  EXPECT_EQ(s->flags, 0u);
  EXPECT_EQ(s->lastType, 1);
  EXPECT_EQ(s->controlSocket, -1);
  s->magic ^= 1;  // a foreign object is refused
  EXPECT_EQ(kelFTPCProtoClose(s), KEL_FTPC_BAD_SESSION);
  EXPECT_EQ(kelFTPCProtoConnect(s, "127.0.0.1", "u", "p"), KEL_FTPC_BAD_SESSION);
  s->magic ^= 1;
  EXPECT_EQ(kelFTPCProtoClose(s), KEL_OK);
  EXPECT_EQ(kelFTPCProtoClose(nullptr), KEL_FTPC_BAD_SESSION);

  // No memory: no session, at open and at start.
  kelHostPoolFailAt(1);
  EXPECT_EQ(kelFTPCProtoOpen(21, 300), nullptr);
  kelHostPoolFailAt(1);
  kelFTPCSession *started = nullptr;
  kelFTPCServerRecord record = {"127.0.0.1", "u", "p"};
  EXPECT_EQ(kelFTPCStart(&record, &started), KEL_FTPC_BAD_SESSION);
  EXPECT_EQ(started, nullptr);
  kelHostPoolFailAt(0);
  EXPECT_EQ(kelFTPCStart(&record, nullptr), KEL_FTPC_BAD_SESSION);
  // A start refused by its arguments frees its session again.
  kelFTPCServerRecord empty = {"", "u", "p"};
  EXPECT_EQ(kelFTPCStart(&empty, &started), KEL_FTPC_BAD_SERVER);
}

}  // namespace
