// Data connections and transfers: passive and active mode, the first and
// the final reply, composed paths, the order of the application calls and
// the abort.

#include <string>
#include <vector>

#include "ftp_script.h"
#include "sockets.h"

namespace {

using ftpt::kShortMs;
using ftpt::Script;

class Transfer : public kt::PoolGuard {};

constexpr uint32_t kReady = KEL_FTPC_CONNECTED | KEL_FTPC_LOGGED_IN;
constexpr uint32_t kStoring = kReady | KEL_FTPC_TRANSFER | KEL_FTPC_PUT;

std::string bytesOf(size_t n, unsigned seed) {
  std::string out;
  for (size_t i = 0; i < n; i++) out += static_cast<char>((i * 7 + seed) & 0xff);
  return out;
}

std::string readToEnd(kelFTPCSession *s, kelResult *result) {
  std::string got;
  char buffer[700];
  uint32_t count = 1;
  *result = KEL_OK;
  while (*result == KEL_OK && count != 0) {
    count = 99;
    *result = kelFTPCRead(s, buffer, sizeof buffer, &count);
    if (*result == KEL_OK) got.append(buffer, count);
  }
  EXPECT_EQ(count, 0u);
  return got;
}

// A store and a retrieve in passive mode: TYPE I on the first open only,
// never STRU or MODE, the bytes unchanged both ways, and the state rules
// around the end of a retrieve.
TEST_F(Transfer, PassiveStoreThenRetrieve) {
  const std::string up = bytesOf(3000, 1), down = bytesOf(2500, 5);
  kt::TcpPeer peer;
  Script srv(peer);
  srv.login().x("TYPE I", "200 ok").passive("d1").x("STOR /home/out/a.bin", "150 go");
  peer.expectAllThenEof(up, "d1");
  srv.say("226 stored").passive("d2").x("RETR /home/in.txt", "125 go");
  peer.send(down, "d2").close("d2");
  srv.say("226 sent").quit();
  peer.start();
  kelFTPCSession *s = ftpt::loggedIn(peer);
  ASSERT_NE(s, nullptr);

  kelFTPCFileRecord out = {"/home/out", "a.bin"};
  ASSERT_EQ(kelFTPCWriteOpen(s, &out), KEL_OK);
  EXPECT_EQ(s->flags, kStoring);
  EXPECT_STREQ(s->transferFile, "a.bin");
  char sink[4];
  uint32_t count = 7;
  EXPECT_EQ(kelFTPCRead(s, sink, sizeof sink, &count), KEL_FTPC_WRONG_TRANSFER);
  EXPECT_EQ(kelFTPCWrite(s, up.data(), 1000), KEL_OK);
  EXPECT_EQ(kelFTPCWrite(s, up.data() + 1000, 0), KEL_OK);
  EXPECT_EQ(kelFTPCWrite(s, up.data() + 1000, 2000), KEL_OK);
  EXPECT_EQ(kelFTPCWriteClose(s), KEL_OK);
  EXPECT_EQ(s->flags, kReady);
  EXPECT_EQ(s->transferFile[0], '\0');
  EXPECT_EQ(kelFTPCWrite(s, "x", 1), KEL_FTPC_NOT_READY);

  kelFTPCFileRecord in = {"/home/", "in.txt"};
  ASSERT_EQ(kelFTPCReadOpen(s, &in), KEL_OK);
  kelResult r;
  EXPECT_EQ(readToEnd(s, &r), down);
  EXPECT_EQ(r, KEL_OK);
  EXPECT_EQ(s->flags, kReady | KEL_FTPC_GET);
  EXPECT_EQ(kelFTPCRead(s, sink, sizeof sink, &count), KEL_FTPC_NOT_READY);
  EXPECT_EQ(kelFTPCProtoGetOpen(s, "", "x", 1, 1, 3), KEL_FTPC_NOT_CLOSED);
  EXPECT_EQ(kelFTPCReadClose(s), KEL_OK);
  EXPECT_EQ(s->flags, kReady);
  EXPECT_EQ(kelFTPCEnd(s), KEL_OK);
  EXPECT_TRUE(peer.finish()) << peer.failure();
}

// Active mode after 502 to PASV, with the reply and the server's connection
// in either order or ready together.
TEST_F(Transfer, ActiveModeInEveryOrder) {
  enum Order { ReplyFirst, ConnectFirst, Together };
  for (Order order : {ReplyFirst, ConnectFirst, Together}) {
    SCOPED_TRACE(order);
    kt::TcpPeer peer;
    Script srv(peer);
    srv.login().x("TYPE I", "200 ok").active();
    if (order == Together) {
      // Both are there before the client sends STOR.
      srv.connect();
      srv.say("200 port ok\r\n150 go").hear("STOR /home/f");
    } else if (order == ReplyFirst) {
      srv.say("200 port ok").x("STOR /home/f", "150 go");
      peer.stall(50);
      srv.connect();
    } else {
      srv.say("200 port ok").hear("STOR /home/f");
      srv.connect();
      peer.stall(50);
      srv.say("150 go");
    }
    peer.expectAllThenEof("payload", "data");
    srv.say("226 done").quit();
    peer.start();
    kelFTPCSession *s = ftpt::loggedIn(peer);
    ASSERT_NE(s, nullptr);
    kelFTPCFileRecord f = {"/home", "f"};
    ASSERT_EQ(kelFTPCWriteOpen(s, &f), KEL_OK);
    EXPECT_NE(s->dataSocket, -1);
    EXPECT_EQ(s->listenSocket, -1);
    EXPECT_EQ(kelFTPCWrite(s, "payload", 7), KEL_OK);
    EXPECT_EQ(kelFTPCWriteClose(s), KEL_OK);
    EXPECT_EQ(kelFTPCEnd(s), KEL_OK);
    EXPECT_TRUE(peer.finish()) << peer.failure();
  }
}

// 150 and then no connection: the open succeeds without a data connection,
// the first write fails and tears down, and the abort then reaches nobody.
TEST_F(Transfer, ActiveReplyWithoutConnection) {
  kt::TcpPeer peer;
  Script srv(peer);
  srv.login().x("TYPE I", "200 ok").active().say("200 port ok").x("STOR /home/f", "150 go").eof();
  peer.start();
  kelFTPCSession *s = ftpt::loggedIn(peer, kShortMs);
  ASSERT_NE(s, nullptr);
  kelFTPCFileRecord f = {"/home", "f"};
  ASSERT_EQ(kelFTPCWriteOpen(s, &f), KEL_OK);
  EXPECT_EQ(s->dataSocket, -1);
  EXPECT_EQ(s->listenSocket, -1);
  EXPECT_EQ(s->flags, kStoring);
  EXPECT_EQ(kelFTPCWrite(s, "x", 1), KEL_FTPC_IO_FAILED);
  EXPECT_EQ(s->flags, KEL_FTPC_LOGGED_IN | KEL_FTPC_PUT);
  EXPECT_EQ(s->controlSocket, -1);
  // No reply read, no DELE, no QUIT.
  EXPECT_EQ(kelFTPCAbortEnd(s), KEL_OK);
  EXPECT_TRUE(peer.finish()) << peer.failure();
}

// The reply's second line times out while the server's connection waits
// too: the teardown takes the listener away before the accept, and the
// counts of the pass differ.
TEST_F(Transfer, TeardownInAPassWithTheListenerReady) {
  kt::TcpPeer peer;
  Script srv(peer);
  srv.login().x("TYPE I", "200 ok").active();
  srv.connect();
  srv.say("200 port ok\r\n150-going").hear("STOR /home/f").eof();
  peer.start();
  kelFTPCSession *s = ftpt::loggedIn(peer, kShortMs);
  ASSERT_NE(s, nullptr);
  EXPECT_EQ(kelFTPCProtoPutOpen(s, "/home", "f", 1, 1, 3), KEL_FTPC_BAD_SESSION);
  EXPECT_EQ(s->flags, static_cast<uint32_t>(KEL_FTPC_LOGGED_IN));
  EXPECT_EQ(kelFTPCProtoClose(s), KEL_OK);
  EXPECT_TRUE(peer.finish()) << peer.failure();
}

// The first reply to STOR, APPE and RETR, each open failing on its own with
// nothing set and its data connection closed. TYPE refused at first is
// asked again at the next open, and only there.
TEST_F(Transfer, FirstReplies) {
  struct Case {
    const char *word;
    const char *reply;
    kelResult want;
  };
  const Case cases[] = {
      {"STOR", "550 no", KEL_FTPC_BAD_REPLY},      {"APPE", "550 no", KEL_FTPC_BAD_FILE_NAME},
      {"STOR", "552 full", KEL_FTPC_STORE_FAILED}, {"STOR", "553 name", KEL_FTPC_BAD_FILE_NAME},
      {"STOR", "502 no", KEL_FTPC_BAD_REPLY},      {"APPE", "502 no", KEL_FTPC_NOT_IMPLEMENTED},
      {"STOR", "452 full", KEL_FTPC_NO_STORAGE},   {"RETR", "452 full", KEL_FTPC_BAD_REPLY},
      {"RETR", "550 none", KEL_FTPC_UNAVAILABLE},  {"RETR", "226 done", KEL_FTPC_RETRIEVE_FAILED},
      {"APPE", "250 done", KEL_FTPC_STORE_FAILED}, {"STOR", "425 no", KEL_FTPC_NO_DATA_CONNECTION},
      {"RETR", "532 acct", KEL_FTPC_BAD_REPLY},    {"APPE", "532 acct", KEL_FTPC_NEED_ACCOUNT},
      {"STOR", "530 who", KEL_FTPC_NOT_READY},     {"STOR", "100 low", KEL_FTPC_BAD_REPLY},
      {"RETR", "999 high", KEL_FTPC_BAD_REPLY},
  };
  kt::TcpPeer peer;
  Script srv(peer);
  srv.login().x("TYPE I", "504 no").x("TYPE I", "200 ok");
  int n = 0;
  for (const Case &c : cases) {
    std::string conn = "d" + std::to_string(n++);
    srv.passive(conn).x(std::string(c.word) + " /home/f", c.reply).eof(conn);
  }
  srv.quit();
  peer.start();
  kelFTPCSession *s = ftpt::loggedIn(peer);
  ASSERT_NE(s, nullptr);
  EXPECT_EQ(kelFTPCProtoPutOpen(s, "/home", "f", 1, 1, 3), KEL_FTPC_BAD_COMMAND);
  for (const Case &c : cases) {
    SCOPED_TRACE(std::string(c.word) + " " + c.reply);
    auto open = c.word[0] == 'S' ? kelFTPCProtoPutOpen
                : c.word[0] == 'A' ? kelFTPCProtoAppendOpen : kelFTPCProtoGetOpen;
    EXPECT_EQ(open(s, "/home", "f", 1, 1, 3), c.want);
    EXPECT_EQ(s->flags, kReady);
    EXPECT_EQ(s->dataSocket, -1);
  }
  EXPECT_EQ(kelFTPCProtoClose(s), KEL_OK);
  EXPECT_TRUE(peer.finish()) << peer.failure();
}

// The final reply after a store and at the end of a retrieve.
TEST_F(Transfer, FinalReplies) {
  struct Case {
    bool store;
    const char *reply;
    kelResult want;
  };
  const Case cases[] = {
      {true, "226 ok", KEL_OK},
      {true, "250 ok", KEL_OK},
      {true, "552 full", KEL_FTPC_BAD_REPLY},
      {true, "553 name", KEL_FTPC_STORE_FAILED},
      {true, "150 again", KEL_FTPC_STORE_FAILED},
      {true, "532 acct", KEL_FTPC_NEED_ACCOUNT},
      {false, "226 ok", KEL_OK},
      {false, "426 broken", KEL_FTPC_RETRIEVE_FAILED},
      {false, "550 gone", KEL_FTPC_UNAVAILABLE},
      {false, "553 name", KEL_FTPC_BAD_REPLY},
      {false, "421 closing", KEL_FTPC_SERVICE_CLOSING},
  };
  kt::TcpPeer peer;
  Script srv(peer);
  srv.login().x("TYPE I", "200 ok");
  int n = 0;
  for (const Case &c : cases) {
    std::string conn = "d" + std::to_string(n++);
    srv.passive(conn).x(std::string(c.store ? "STOR" : "RETR") + " /home/f", "150 go");
    if (c.store) {
      peer.expectAllThenEof("abc", conn);
    } else {
      peer.send("abc", conn).close(conn);
    }
    srv.say(c.reply);
  }
  srv.quit();
  peer.start();
  kelFTPCSession *s = ftpt::loggedIn(peer);
  ASSERT_NE(s, nullptr);
  kelFTPCFileRecord f = {"/home", "f"};
  for (const Case &c : cases) {
    SCOPED_TRACE(c.reply);
    if (c.store) {
      ASSERT_EQ(kelFTPCWriteOpen(s, &f), KEL_OK);
      EXPECT_EQ(kelFTPCWrite(s, "abc", 3), KEL_OK);
      EXPECT_EQ(kelFTPCWriteClose(s), c.want);
    } else {
      ASSERT_EQ(kelFTPCReadOpen(s, &f), KEL_OK);
      kelResult r;
      EXPECT_EQ(readToEnd(s, &r), "abc");
      EXPECT_EQ(r, c.want);
      EXPECT_EQ(kelFTPCReadClose(s), KEL_OK);
    }
    EXPECT_EQ(s->flags, kReady);
  }
  EXPECT_EQ(kelFTPCEnd(s), KEL_OK);
  EXPECT_TRUE(peer.finish()) << peer.failure();
}

// Composed paths with the backslash derived at login: a directory ending
// in a slash still gets one; 255 bytes of names pass, 256 are refused
// before anything goes out; an empty directory gives the bare name.
TEST_F(Transfer, PathsOnTheWire) {
  const std::string d200(200, 'd'), f55(55, 'f'), f56(56, 'f');
  kt::TcpPeer peer;
  Script srv(peer);
  srv.login("C:\\ftp").x("TYPE I", "200 ok").passive().x("STOR dir/\\f", "150 go");
  peer.expectAllThenEof("", "data");
  srv.say("226 ok").x("DELE " + d200 + "\\" + f55, "250 gone").x("DELE f", "550 no").quit();
  peer.start();
  kelFTPCSession *s = ftpt::loggedIn(peer);
  ASSERT_NE(s, nullptr);
  EXPECT_EQ(s->pathSeparator, '\\');
  kelFTPCFileRecord longOne = {d200.c_str(), f56.c_str()};
  EXPECT_EQ(kelFTPCWriteOpen(s, &longOne), KEL_FTPC_BAD_REPLY);
  EXPECT_EQ(kelFTPCProtoDelete(s, d200.c_str(), f56.c_str()), KEL_FTPC_BAD_REPLY);
  kelFTPCFileRecord f = {"dir/", "f"};
  ASSERT_EQ(kelFTPCWriteOpen(s, &f), KEL_OK);
  EXPECT_EQ(kelFTPCWriteClose(s), KEL_OK);
  EXPECT_EQ(kelFTPCProtoDelete(s, d200.c_str(), f55.c_str()), KEL_OK);
  EXPECT_EQ(kelFTPCProtoDelete(s, "", "f"), KEL_FTPC_DELETE_FAILED);
  EXPECT_EQ(kelFTPCEnd(s), KEL_OK);
  EXPECT_TRUE(peer.finish()) << peer.failure();
}

// A second open before the close is refused and closes the first transfer,
// reading its final reply; a close without a transfer reads nothing; a later
// open sends no TYPE; a delete may run during a store.
TEST_F(Transfer, OrderOfApplicationCalls) {
  kt::TcpPeer peer;
  Script srv(peer);
  srv.login().x("TYPE I", "200 ok").passive("d1").x("STOR /home/a", "150 go");
  peer.expectAllThenEof("first", "d1");
  srv.say("226 ok").passive("d2").x("STOR /home/b", "150 go").x("DELE /home/old", "250 gone");
  peer.expectAllThenEof("", "d2");
  srv.say("226 ok").quit();
  peer.start();
  kelFTPCSession *s = ftpt::loggedIn(peer);
  ASSERT_NE(s, nullptr);
  kelFTPCFileRecord a = {"/home", "a"}, b = {"/home", "b"};
  ASSERT_EQ(kelFTPCWriteOpen(s, &a), KEL_OK);
  EXPECT_EQ(kelFTPCWrite(s, "first", 5), KEL_OK);
  EXPECT_EQ(kelFTPCWriteOpen(s, &b), KEL_FTPC_ALREADY_ACTIVE);
  EXPECT_EQ(s->flags, kReady);
  EXPECT_EQ(kelFTPCWriteClose(s), KEL_OK);
  ASSERT_EQ(kelFTPCWriteOpen(s, &b), KEL_OK);
  EXPECT_EQ(kelFTPCProtoDelete(s, "/home", "old"), KEL_OK);
  EXPECT_EQ(kelFTPCWriteClose(s), KEL_OK);
  EXPECT_EQ(kelFTPCEnd(s), KEL_OK);
  EXPECT_TRUE(peer.finish()) << peer.failure();
}

// The calls' state tests on a session that isn't connected, and on none.
TEST_F(Transfer, CallsOutOfOrder) {
  kelFTPCSession *s = kelFTPCProtoOpen(21, kShortMs);
  ASSERT_NE(s, nullptr);
  kelFTPCFileRecord f = {"", "f"};
  char buffer[8];
  uint32_t count = 0;
  EXPECT_EQ(kelFTPCWriteOpen(s, &f), KEL_FTPC_NOT_READY);
  EXPECT_EQ(kelFTPCReadOpen(s, &f), KEL_FTPC_NOT_READY);
  EXPECT_EQ(kelFTPCProtoAppendOpen(s, "", "f", 1, 1, 3), KEL_FTPC_NOT_READY);
  EXPECT_EQ(kelFTPCWrite(s, "x", 1), KEL_FTPC_NOT_READY);
  EXPECT_EQ(kelFTPCRead(s, buffer, sizeof buffer, &count), KEL_FTPC_NOT_READY);
  EXPECT_EQ(kelFTPCProtoDelete(s, "", "f"), KEL_FTPC_NOT_READY);
  EXPECT_EQ(kelFTPCWriteClose(s), KEL_OK);
  EXPECT_EQ(kelFTPCReadClose(s), KEL_OK);
  EXPECT_EQ(kelFTPCAbortEnd(s), KEL_OK);
  EXPECT_EQ(kelFTPCWriteOpen(nullptr, &f), KEL_FTPC_BAD_SESSION);
  EXPECT_EQ(kelFTPCWrite(nullptr, "x", 1), KEL_FTPC_BAD_SESSION);
  EXPECT_EQ(kelFTPCWriteClose(nullptr), KEL_FTPC_BAD_SESSION);
  EXPECT_EQ(kelFTPCAbortEnd(nullptr), KEL_FTPC_BAD_SESSION);
}

// The abort during a store deletes the file; during a retrieve QUIT takes
// the pending reply; with nothing open it is the plain end.
TEST_F(Transfer, AbortEnd) {
  for (int which = 0; which < 3; which++) {
    SCOPED_TRACE(which);
    kt::TcpPeer peer;
    Script srv(peer);
    srv.login();
    kelResult want = KEL_OK;
    if (which == 0) {
      srv.x("TYPE I", "200 ok").passive().x("STOR /home/part", "150 go");
      peer.expectAllThenEof("half", "data");
      srv.say("426 broken").x("DELE /home/part", "250 gone").quit();
    } else if (which == 1) {
      srv.x("TYPE I", "200 ok").passive().x("RETR /home/part", "150 go").eof("data");
      srv.say("426 broken").hear("QUIT").eof();
      want = KEL_FTPC_BAD_REPLY;
    } else {
      srv.quit();
    }
    peer.start();
    kelFTPCSession *s = ftpt::loggedIn(peer);
    ASSERT_NE(s, nullptr);
    kelFTPCFileRecord f = {"/home", "part"};
    if (which == 0) {
      ASSERT_EQ(kelFTPCWriteOpen(s, &f), KEL_OK);
      EXPECT_EQ(kelFTPCWrite(s, "half", 4), KEL_OK);
    } else if (which == 1) {
      ASSERT_EQ(kelFTPCReadOpen(s, &f), KEL_OK);
    }
    EXPECT_EQ(kelFTPCAbortEnd(s), want);
    EXPECT_TRUE(peer.finish()) << peer.failure();
  }
}

// Nothing falls back to active mode but 502 to PASV: not 500, not a 227
// that doesn't parse, not a passive connect that fails. A refused PORT
// leaves its listener to the close.
TEST_F(Transfer, DataConnectionFailures) {
  const uint16_t closed = kt::closedPort();
  kt::TcpPeer peer;
  Script srv(peer);
  srv.login().x("TYPE I", "200 ok").x("PASV", "500 what").x("PASV", "227 no numbers");
  srv.x("PASV", "227 Entering Passive Mode (127,0,0,1," + std::to_string(closed >> 8) + "," +
                    std::to_string(closed & 0xff) + ")");
  srv.active().say("502 no").quit();
  peer.start();
  kelFTPCSession *s = ftpt::loggedIn(peer);
  ASSERT_NE(s, nullptr);
  const kelResult wants[] = {KEL_FTPC_BAD_COMMAND, KEL_FTPC_BAD_REPLY, KEL_FTPC_CONNECT_FAILED,
                             KEL_FTPC_BAD_REPLY};
  for (kelResult want : wants) {
    EXPECT_EQ(kelFTPCProtoPutOpen(s, "/home", "f", 1, 1, 3), want);
    EXPECT_EQ(s->flags, kReady);
    EXPECT_EQ(s->dataSocket, -1);
  }
  EXPECT_NE(s->listenSocket, -1);
  EXPECT_EQ(kelFTPCProtoPutClose(s), KEL_OK);
  EXPECT_EQ(s->listenSocket, -1);
  EXPECT_EQ(kelFTPCEnd(s), KEL_OK);
  EXPECT_TRUE(peer.finish()) << peer.failure();
}

}  // namespace
