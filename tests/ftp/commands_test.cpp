// The command exchanges with their own reply tables, the remembered
// transfer settings, and the parsing of a 227 line.

#include <arpa/inet.h>
#include <string.h>

#include <functional>
#include <string>
#include <vector>

#include "ftp_script.h"

namespace {

using ftpt::Script;

class Commands : public kt::PoolGuard {};

using Call = std::function<kelResult(kelFTPCSession *)>;

Call type(int v) { return [v](kelFTPCSession *s) { return kelFTPCCommandReplyTYPE(s, v); }; }
Call stru(int v) { return [v](kelFTPCSession *s) { return kelFTPCCommandReplySTRU(s, v); }; }
Call mode(int v) { return [v](kelFTPCSession *s) { return kelFTPCCommandReplyMODE(s, v); }; }
Call cwd(const char *d) { return [d](kelFTPCSession *s) { return kelFTPCCommandReplyCWD(s, d); }; }
Call dele(const char *p) { return [p](kelFTPCSession *s) { return kelFTPCCommandReplyDELE(s, p); }; }
Call port() {
  return [](kelFTPCSession *s) {
    return kelFTPCCommandReplyPORT(s, inet_addr("10.1.2.3"), 1234);
  };
}
Call pasv(uint32_t *address, uint16_t *port) {
  return [=](kelFTPCSession *s) { return kelFTPCCommandReplyPASV(s, address, port); };
}

struct Row {
  Call call;
  std::string road;  // "" : nothing may go out
  kelResult want;
  int lastType = -1;  // checked unless -1
};

// One stream of exchanges: a row that must send nothing is proved silent by
// the next row's expected command.
void play(const std::vector<Row> &rows) {
  kt::TcpPeer peer;
  Script srv(peer);
  for (const Row &r : rows) srv.road(r.road);
  srv.eof();
  peer.start();
  kelFTPCSession *s = ftpt::attach(peer);
  ASSERT_NE(s, nullptr);
  for (size_t i = 0; i < rows.size(); i++) {
    SCOPED_TRACE("row " + std::to_string(i) + ": " + rows[i].road);
    EXPECT_EQ(rows[i].call(s), rows[i].want);
    if (rows[i].lastType != -1) {
      EXPECT_EQ(s->lastType, rows[i].lastType);
    }
    ASSERT_NE(s->controlSocket, -1);
  }
  EXPECT_EQ(kelFTPCProtoClose(s), KEL_OK);
  EXPECT_TRUE(peer.finish()) << peer.failure();
}

TEST_F(Commands, SettingsAreRemembered) {
  play({
      {type(3), ">TYPE I|<200 ok", 0, 3},
      {type(3), "", 0, 3},
      {type(0), "", KEL_FTPC_BAD_COMMAND, 3},
      {type(2), "", KEL_FTPC_BAD_COMMAND, 0},
      {type(3), ">TYPE I|<200 ok", 0, 3},
      {type(1), ">TYPE A|<504 no", KEL_FTPC_BAD_COMMAND, 0},
      {type(1), ">TYPE A|<200 ok", 0, 1},
      {type(3), ">TYPE I|<500 what", KEL_FTPC_BAD_COMMAND, 0},
      {type(0), "", KEL_FTPC_BAD_COMMAND, 0},
      {type(1), ">TYPE A|<250 odd", KEL_FTPC_BAD_REPLY, 0},
      {stru(1), "", 0},
      {mode(1), "", 0},
      {stru(2), "", KEL_FTPC_BAD_COMMAND},
      {stru(1), ">STRU F|<200 ok", 0},
      {mode(3), "", KEL_FTPC_BAD_COMMAND},
      {mode(1), ">MODE S|<421 closing", KEL_FTPC_SERVICE_CLOSING},
      {mode(1), ">MODE S|<200 ok", 0},
      {mode(1), "", 0},
  });
}

TEST_F(Commands, DirectoryPortAndDelete) {
  uint32_t address = 0;
  uint16_t p = 0;
  play({
      {cwd(""), "", 0},
      {cwd("."), "", 0},
      {cwd(".."), ">CWD ..|<250 ok", 0},
      {cwd(".in"), ">CWD .in|<550 none", KEL_FTPC_UNAVAILABLE},
      {cwd("d"), ">CWD d|<502 no|>XCWD d|<250 ok", 0},
      {cwd("d"), ">CWD d|<500 what|>XCWD d|<502 no", KEL_FTPC_NOT_IMPLEMENTED},
      {cwd("d"), ">CWD d|<502 no|>XCWD d|<504 no", KEL_FTPC_BAD_REPLY},
      {cwd("d"), ">CWD d|<504 no", KEL_FTPC_BAD_REPLY},
      {cwd("d"), ">CWD d|<200 odd", KEL_FTPC_BAD_REPLY},
      {port(), ">PORT 10,1,2,3,4,210|<200 ok", 0},
      {port(), ">PORT 10,1,2,3,4,210|<502 no", KEL_FTPC_BAD_REPLY},
      {port(), ">PORT 10,1,2,3,4,210|<250 odd", KEL_FTPC_BAD_REPLY},
      {pasv(&address, &p), ">PASV|<502 no", KEL_FTPC_NOT_IMPLEMENTED},
      {pasv(&address, &p), ">PASV|<500 what", KEL_FTPC_BAD_COMMAND},
      {pasv(&address, &p), ">PASV|<200 odd", KEL_FTPC_BAD_REPLY},
      {pasv(&address, &p), ">PASV|<227-Entering|<227 Passive Mode (192,168,1,2,19,137).", 0},
      {dele("a/b"), ">DELE a/b|<250 ok", 0},
      {dele("a/b"), ">DELE a/b|<450 busy", KEL_FTPC_FILE_BUSY},
      {dele("a/b"), ">DELE a/b|<502 no", KEL_FTPC_NOT_IMPLEMENTED},
      {dele("a/b"), ">DELE a/b|<550 no", KEL_FTPC_DELETE_FAILED},
      {dele("a/b"), ">DELE a/b|<504 no", KEL_FTPC_BAD_REPLY},
  });
  EXPECT_EQ(address, inet_addr("192.168.1.2"));
  EXPECT_EQ(p, 19 * 256 + 137);
}

// Every table has 421 and 530, and none the lowest and highest codes.
TEST_F(Commands, CodesEveryTableKnowsOrNot) {
  uint32_t address = 0;
  uint16_t p = 0;
  struct Command {
    Call call;
    const char *line;
  };
  const Command commands[] = {{type(3), "TYPE I"},      {cwd("d"), "CWD d"},
                              {port(), "PORT 10,1,2,3,4,210"}, {pasv(&address, &p), "PASV"},
                              {dele("f"), "DELE f"}};
  const std::pair<const char *, kelResult> codes[] = {{"100 low", KEL_FTPC_BAD_REPLY},
                                                      {"999 high", KEL_FTPC_BAD_REPLY},
                                                      {"421 closing", KEL_FTPC_SERVICE_CLOSING},
                                                      {"530 login", KEL_FTPC_NOT_READY},
                                                      {"501 syntax", KEL_FTPC_BAD_COMMAND}};
  std::vector<Row> rows;
  for (const Command &c : commands)
    for (const auto &code : codes)
      rows.push_back({c.call, std::string(">") + c.line + "|<" + code.first, code.second});
  play(rows);
}

TEST(PasvLine, Parsing) {
  struct Case {
    const char *line;
    kelResult want;
    const char *address;
    uint16_t port;
  };
  const Case cases[] = {
      {"227 Entering Passive Mode (192,168,1,2,19,137).", 0, "192.168.1.2", 5001},
      {"227 10,0,0,1,4,1", 0, "10.0.0.1", 1025},
      {"227 =10,0,0,1,255,255 ok", 0, "10.0.0.1", 65535},
      {"227 Entering Passive Mode (1,2,3,4,5,6,7)", 0, "1.2.3.4", 1286},
      {"227 Entering Passive Mode (300,2,3,4,300,1)", 0, "44.2.3.4", 44 * 256 + 1},
      {"227 Entering Passive Mode (1,2,3,4,5)", KEL_FTPC_BAD_REPLY, nullptr, 0},
      {"227 Entering Passive Mode", KEL_FTPC_BAD_REPLY, nullptr, 0},
      {"227 Entering Passive Mode (1,2,3,4,5,6) 7", KEL_FTPC_BAD_REPLY, nullptr, 0},
      {"227 Entering Passive Mode (1,2,3,4,,5,6)", KEL_FTPC_BAD_REPLY, nullptr, 0},
  };
  for (const Case &c : cases) {
    SCOPED_TRACE(c.line);
    char line[128];
    strcpy(line, c.line);
    uint32_t address = 0;
    uint16_t port = 0;
    ASSERT_EQ(kelFTPCParsePasvReply(line, &address, &port), c.want);
    if (c.want != KEL_OK) continue;
    EXPECT_EQ(address, inet_addr(c.address));
    EXPECT_EQ(port, c.port);
  }
}

}  // namespace
