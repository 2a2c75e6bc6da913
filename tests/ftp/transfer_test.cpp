// Data connections and transfers: passive and active mode, composed paths,
// the order of the application calls and the abort.

#include <string>

#include "ftp_test.h"

namespace {

using ftpt::kReady;
using ftpt::kShortMs;
using Transfer = ftpt::Ftp;
constexpr uint32_t kStoring = kReady | KEL_FTPC_TRANSFER | KEL_FTPC_PUT;

std::string readToEnd(kelFTPCSession *s, kelResult *result) {
  std::string got;
  char buffer[7];
  uint32_t count = 1;
  while ((*result = kelFTPCRead(s, buffer, sizeof buffer, &count)) == KEL_OK && count != 0)
    got.append(buffer, count);
  return got;
}

// A store and a retrieve in passive mode: TYPE I on the first open only,
// never STRU or MODE, the bytes unchanged both ways, and the state rules
// around them.
TEST_F(Transfer, PassiveStoreThenRetrieve) {
  kelFTPCSession *s = open(R"(login
    >TYPE I|<200 ok|pasv d1|>STOR /home/out/a.bin|<150 go
    C-@d1 first\0second
    eof@d1
    <226 stored|pasv d2|>RETR /home/in.txt|<125 go
    SX@d2: 00 ff 0d 0a 41
    close@d2
    <226 sent|>QUIT|<221 bye|eof)");
  kelFTPCFileRecord out = {"/home/out", "a.bin"}, in = {"/home/", "in.txt"};
  ASSERT_EQ(kelFTPCWriteOpen(s, &out), KEL_OK);
  EXPECT_EQ(s->flags, kStoring);
  char sink[4];
  uint32_t count = 7;
  EXPECT_EQ(kelFTPCRead(s, sink, sizeof sink, &count), KEL_FTPC_WRONG_TRANSFER);
  EXPECT_EQ(kelFTPCWrite(s, "first", 6), KEL_OK);
  EXPECT_EQ(kelFTPCWrite(s, "", 0), KEL_OK);
  EXPECT_EQ(kelFTPCWrite(s, "second", 6), KEL_OK);
  EXPECT_EQ(kelFTPCWriteClose(s), KEL_OK);
  EXPECT_EQ(s->flags, kReady);
  EXPECT_EQ(s->transferFile[0] + s->transferDirectory[0], 0);
  EXPECT_EQ(kelFTPCWrite(s, "x", 1), KEL_FTPC_NOT_READY);
  ASSERT_EQ(kelFTPCReadOpen(s, &in), KEL_OK);
  kelResult r;
  EXPECT_EQ(readToEnd(s, &r), std::string("\0\xff\r\nA", 5));
  EXPECT_EQ(r, KEL_OK);
  EXPECT_EQ(s->flags, kReady | KEL_FTPC_GET);
  EXPECT_EQ(kelFTPCRead(s, sink, sizeof sink, &count), KEL_FTPC_NOT_READY);
  EXPECT_EQ(kelFTPCProtoGetOpen(s, "", "x", 1, 1, 3), KEL_FTPC_NOT_CLOSED);
  EXPECT_EQ(kelFTPCReadClose(s), KEL_OK);
  EXPECT_EQ(s->flags, kReady);
  done(s);
}

// Active mode after 502 to PASV, with the reply and the server's connection
// in either order or both there before STOR goes out.
TEST_F(Transfer, ActiveModeInEveryOrder) {
  const char *orders[] = {
      "<200 port ok|>STOR /home/f|<150 go|stall 50|connect d.port d",
      "<200 port ok|>STOR /home/f|connect d.port d|stall 50|<150 go",
      "connect d.port d|<200 port ok|<150 go|>STOR /home/f",
  };
  for (const char *order : orders) {
    kelFTPCSession *s = open(std::string("login|>TYPE I|<200 ok|port d|") + order +
                             "|C-@d payload|eof@d|<226 done|>QUIT|<221 bye|eof");
    kelFTPCFileRecord f = {"/home", "f"};
    ASSERT_EQ(kelFTPCWriteOpen(s, &f), KEL_OK) << order;
    EXPECT_EQ(s->listenSocket, -1);
    EXPECT_EQ(kelFTPCWrite(s, "payload", 7), KEL_OK) << order;
    EXPECT_EQ(kelFTPCWriteClose(s), KEL_OK) << order;
    done(s);
  }
}

// 150 and no connection: the open succeeds without a data connection, the
// first write fails and tears down, and the abort then sends nothing. A
// reply that times out while the connection waits takes the listener away
// before the accept.
TEST_F(Transfer, ActiveWithoutTheServersConnection) {
  kelFTPCSession *s =
      open("login|>TYPE I|<200 ok|port d|<200 port ok|>STOR /home/f|<150 go|eof", kShortMs);
  ASSERT_EQ(kelFTPCProtoPutOpen(s, "/home", "f", 1, 1, 3), KEL_OK);
  EXPECT_EQ(s->dataSocket + s->listenSocket, -2);
  EXPECT_EQ(s->flags, kStoring);
  EXPECT_EQ(kelFTPCWrite(s, "x", 1), KEL_FTPC_IO_FAILED);
  EXPECT_EQ(s->flags, KEL_FTPC_LOGGED_IN | KEL_FTPC_PUT);
  EXPECT_EQ(kelFTPCAbortEnd(s), KEL_OK);
  EXPECT_TRUE(peer_->finish()) << peer_->failure();

  s = open("login|>TYPE I|<200 ok|port d|connect d.port d|<200 port ok|<150-going|>STOR /home/f|eof",
           kShortMs);
  EXPECT_EQ(kelFTPCProtoPutOpen(s, "/home", "f", 1, 1, 3), KEL_FTPC_BAD_SESSION);
  EXPECT_EQ(s->flags, KEL_FTPC_LOGGED_IN);
  done(s);
}

// Nothing falls back to active mode but 502 to PASV: not 500, not a 227
// that doesn't parse, not a passive connect that fails. A refused PORT
// leaves its listener to the close. A refused TYPE is asked again.
TEST_F(Transfer, DataConnectionFailures) {
  const uint16_t closed = kt::closedPort();
  kelFTPCSession *s = open("login|>TYPE I|<504 no|>TYPE I|<200 ok|>PASV|<500 what|>PASV|<227 none|"
                           ">PASV|<227 (127,0,0,1," + std::to_string(closed >> 8) + "," +
                           std::to_string(closed & 0xff) + ")|port d|<502 no|>QUIT|<221 bye|eof");
  const kelResult wants[] = {KEL_FTPC_BAD_COMMAND, KEL_FTPC_BAD_COMMAND, KEL_FTPC_BAD_REPLY,
                             KEL_FTPC_CONNECT_FAILED, KEL_FTPC_BAD_REPLY};
  for (kelResult want : wants) {
    EXPECT_EQ(kelFTPCProtoPutOpen(s, "/home", "f", 1, 1, 3), want);
    EXPECT_EQ(s->flags, kReady);
    EXPECT_EQ(s->dataSocket, -1);
  }
  EXPECT_NE(s->listenSocket, -1);
  EXPECT_EQ(kelFTPCProtoPutClose(s), KEL_OK);
  EXPECT_EQ(s->listenSocket, -1);
  done(s);
}

// Composed paths with the backslash learnt at login: a directory ending in
// a separator gets none more; 255 bytes of names pass, 256 are refused
// before anything goes out; an empty directory gives the bare name. A
// second open before the close is refused; a delete may run during a store.
TEST_F(Transfer, PathsAndOrderOfCalls) {
  const std::string d200(200, 'd'), f55(55, 'f'), f56(56, 'f');
  kelFTPCSession *s = open("<220 hi|>USER u|<230 in|>PWD|<257 \"C:\\\\ftp\"|>TYPE I|<200 ok|pasv d|"
                           ">STOR dir\\\\f|<150 go|>DELE " + d200 + "\\\\" + f55 + "|<250 gone|"
                           "eof@d|<226 ok|>DELE f|<550 no|>QUIT|<221 bye|eof", ftpt::kWaitMs, false);
  ASSERT_EQ(kelFTPCProtoConnect(s, "127.0.0.1", "u", "p"), KEL_OK);
  kelFTPCFileRecord longOne = {d200.c_str(), f56.c_str()}, f = {"dir\\", "f"};
  EXPECT_EQ(kelFTPCWriteOpen(s, &longOne), KEL_FTPC_BAD_REPLY);
  EXPECT_EQ(kelFTPCProtoDelete(s, d200.c_str(), f56.c_str()), KEL_FTPC_BAD_REPLY);
  ASSERT_EQ(kelFTPCWriteOpen(s, &f), KEL_OK);
  EXPECT_EQ(kelFTPCProtoAppendOpen(s, "", "f", 1, 1, 3), KEL_FTPC_ALREADY_ACTIVE);
  EXPECT_EQ(kelFTPCProtoDelete(s, d200.c_str(), f55.c_str()), KEL_OK);
  // Refused, the application's open closes the transfer under way.
  EXPECT_EQ(kelFTPCWriteOpen(s, &f), KEL_FTPC_ALREADY_ACTIVE);
  EXPECT_EQ(s->flags, kReady);
  EXPECT_EQ(kelFTPCWriteClose(s), KEL_OK);
  EXPECT_EQ(kelFTPCProtoDelete(s, "", "f"), KEL_FTPC_DELETE_FAILED);
  done(s);
}

// The calls' state tests on a session that isn't connected, and on none.
TEST_F(Transfer, CallsOutOfOrder) {
  kelFTPCSession *s = kelFTPCProtoOpen(21, kShortMs);
  kelFTPCFileRecord f = {"", "f"};
  char buffer[8];
  uint32_t count = 0;
  EXPECT_EQ(kelFTPCWriteOpen(s, &f), KEL_FTPC_NOT_READY);
  EXPECT_EQ(kelFTPCReadOpen(s, nullptr), KEL_FTPC_BAD_FILE_NAME);
  EXPECT_EQ(kelFTPCProtoAppendOpen(s, "", "f", 1, 1, 3), KEL_FTPC_NOT_READY);
  EXPECT_EQ(kelFTPCWrite(s, "x", 1), KEL_FTPC_NOT_READY);
  EXPECT_EQ(kelFTPCRead(s, buffer, sizeof buffer, &count), KEL_FTPC_NOT_READY);
  EXPECT_EQ(kelFTPCProtoDelete(s, "", "f"), KEL_FTPC_NOT_READY);
  EXPECT_EQ(kelFTPCWriteClose(s), KEL_OK);
  EXPECT_EQ(kelFTPCAbortEnd(s), KEL_OK);
  EXPECT_EQ(kelFTPCWrite(nullptr, "x", 1), KEL_FTPC_BAD_SESSION);
  EXPECT_EQ(kelFTPCReadClose(nullptr), KEL_FTPC_BAD_SESSION);
  EXPECT_EQ(kelFTPCAbortEnd(nullptr), KEL_FTPC_BAD_SESSION);
}

// The abort during a store deletes the file (not when its name filled the
// session's field); during a retrieve QUIT takes the pending reply.
TEST_F(Transfer, AbortEnd) {
  const std::string name127(127, 'n'), name128(128, 'n');
  const struct {
    const char *file, *road;
    kelResult want;
  } cases[] = {
      {name127.c_str(), "|eof@d|<426 broken|>DELE /home/${name}|<250 gone|>QUIT|<221 bye|eof", KEL_OK},
      {name128.c_str(), "|eof@d|<426 broken|>QUIT|<221 bye|eof", KEL_OK},
      {nullptr, "|eof@d|<426 broken|>QUIT|eof", KEL_FTPC_BAD_REPLY},
  };
  for (const auto &c : cases) {
    std::string road = std::string("login|>TYPE I|<200 ok|pasv d|>") + (c.file ? "STOR" : "RETR") +
                       " /home/" + (c.file ? c.file : "g") + "|<150 go" + c.road;
    size_t at = road.find("${name}");
    if (at != std::string::npos) road.replace(at, 7, c.file);
    kelFTPCSession *s = open(road);
    ASSERT_EQ(c.file ? kelFTPCProtoPutOpen(s, "/home", c.file, 1, 1, 3)
                     : kelFTPCProtoGetOpen(s, "/home", "g", 1, 1, 3),
              KEL_OK);
    EXPECT_EQ(kelFTPCAbortEnd(s), c.want);
    EXPECT_TRUE(peer_->finish()) << peer_->failure();
  }
}

}  // namespace
