// The command exchanges: every reply table row by row, the remembered
// transfer settings, and the parsing of a 227 line.

#include <arpa/inet.h>
#include <string.h>

#include <map>
#include <sstream>

#include "ftp_test.h"

namespace {

const std::map<std::string, kelResult> kResults = {
    {"ok", KEL_OK}, {"closing", KEL_FTPC_SERVICE_CLOSING}, {"syntax", KEL_FTPC_BAD_COMMAND},
    {"ready", KEL_FTPC_NOT_READY}, {"notimpl", KEL_FTPC_NOT_IMPLEMENTED},
    {"busy", KEL_FTPC_FILE_BUSY}, {"name", KEL_FTPC_BAD_FILE_NAME},
    {"account", KEL_FTPC_NEED_ACCOUNT}, {"store", KEL_FTPC_STORE_FAILED},
    {"retr", KEL_FTPC_RETRIEVE_FAILED}, {"gone", KEL_FTPC_UNAVAILABLE},
    {"nodata", KEL_FTPC_NO_DATA_CONNECTION}, {"full", KEL_FTPC_NO_STORAGE},
    {"login", KEL_FTPC_BAD_LOGIN}, {"pass", KEL_FTPC_NEED_PASSWORD},
    {"dele", KEL_FTPC_DELETE_FAILED}, {"odd", KEL_FTPC_BAD_REPLY}};

// One exchange named by text: the call and its argument ("TYPE 3", "CWD d").
// "final-put" and "final-get" read the final reply of a store or retrieve
// whose data connection has just ended.
kelResult call(kelFTPCSession *s, const std::string &text) {
  std::string word = text.substr(0, text.find(' ')), arg = text.substr(word.size() + (text != word));
  char dir[64];
  uint32_t address;
  uint16_t port;
  int pair[2];
  if (word == "TYPE") return kelFTPCCommandReplyTYPE(s, atoi(arg.c_str()));
  if (word == "STRU") return kelFTPCCommandReplySTRU(s, atoi(arg.c_str()));
  if (word == "MODE") return kelFTPCCommandReplyMODE(s, atoi(arg.c_str()));
  if (word == "CWD") return kelFTPCCommandReplyCWD(s, arg.c_str());
  if (word == "XCWD") return kelFTPCCommandReplyXCWD(s, arg.c_str());
  if (word == "PORT") return kelFTPCCommandReplyPORT(s, inet_addr("10.1.2.3"), 1234);
  if (word == "PASV") return kelFTPCCommandReplyPASV(s, &address, &port);
  if (word == "DELE") return kelFTPCCommandReplyDELE(s, arg.c_str());
  if (word == "STOR") return kelFTPCCommandReplySTOR(s, arg.c_str());
  if (word == "APPE") return kelFTPCCommandReplyAPPE(s, arg.c_str());
  if (word == "RETR") return kelFTPCCommandReplyRETR(s, arg.c_str());
  if (word == "USER") return kelFTPCCommandReplyUSER(s, arg.c_str());
  if (word == "PASS") return kelFTPCCommandReplyPASS(s, arg.c_str());
  if (word == "QUIT") return kelFTPCCommandReplyQUIT(s);
  if (word == "PWD") return kelFTPCCommandReplyPWD(s, dir, sizeof dir);
  if (word == "XPWD") return kelFTPCCommandReplyXPWD(s, dir, sizeof dir);
  if (word == "final-put") return s->dataSocket = socket(AF_INET, SOCK_STREAM, 0), kelFTPCProtoPutClose(s);
  socketpair(AF_UNIX, SOCK_STREAM, 0, pair);
  close(pair[1]);
  s->dataSocket = pair[0];
  kelFTPCSetState(s, ftpt::kReady | KEL_FTPC_TRANSFER | KEL_FTPC_GET);
  kelResult r = kelFTPCProtoGetData(s, dir, sizeof dir, &address);
  s->flags = 0;
  return address == 0 ? r : KEL_FTPC_BAD_COMMAND;
}

class Commands : public ftpt::Ftp {
 protected:
  // Rows of "call; the server's side; result", played as one stream: a row
  // that must send nothing is proved silent by the next row's command.
  void run(const std::vector<std::string> &rows, bool forget) {
    std::string text;
    for (const std::string &r : rows) text += r.substr(r.find(';') + 1, r.rfind(';') - r.find(';') - 1) + "\n";
    kelFTPCSession *s = open(text + "eof");
    for (const std::string &r : rows) {
      if (forget) s->lastType = 0;
      EXPECT_EQ(call(s, r.substr(0, r.find(';'))), kResults.at(r.substr(r.rfind(';') + 1))) << r;
    }
    done(s);
  }
};

// Each table: the call, what goes out, then reply codes and their results.
TEST_F(Commands, EveryReplyTableRowByRow) {
  const char *tables[] = {
      "TYPE 3;TYPE I: 200 ok 421 closing 500 syntax 501 syntax 504 syntax 530 ready 100 odd",
      "CWD d;CWD d: 250 ok 421 closing 501 syntax 530 ready 550 gone 200 odd",
      "XCWD d;XCWD d: 250 ok 421 closing 500 syntax 501 syntax 502 notimpl 530 ready 550 gone",
      "PORT;PORT 10,1,2,3,4,210: 200 ok 421 closing 500 syntax 501 syntax 530 ready",
      "PASV;PASV: 421 closing 500 syntax 501 syntax 502 notimpl 530 ready",
      "DELE f;DELE f: 250 ok 421 closing 450 busy 500 syntax 501 syntax 502 notimpl 530 ready "
      "550 dele",
      "STOR f;STOR f: 110 store 125 ok 150 ok 226 store 250 store 421 closing 425 nodata "
      "426 store 450 busy 451 store 452 full 500 syntax 501 syntax 530 ready 532 account "
      "551 store 552 store 553 name 502 odd 550 odd",
      "APPE f;APPE f: 502 notimpl 550 name 150 ok 452 full",
      "RETR f;RETR f: 110 retr 125 ok 150 ok 226 retr 250 retr 421 closing 425 nodata 426 retr "
      "450 busy 451 retr 500 syntax 501 syntax 530 ready 550 gone 452 odd 532 odd",
      "USER u;USER u: 230 ok 331 pass 332 account 421 closing 500 syntax 501 syntax 530 login "
      "202 odd",
      "PASS p;PASS p: 202 ok 230 ok 332 account 421 closing 500 syntax 501 syntax 503 syntax "
      "530 login 331 odd",
      "QUIT;QUIT: 221 ok 500 syntax 200 odd",
      "PWD;PWD: 421 closing 501 syntax 550 gone 530 odd",
      "XPWD;XPWD: 421 closing 500 syntax 501 syntax 502 notimpl 550 gone",
      "final-put;: 110 store 125 store 150 store 226 ok 250 ok 421 closing 425 nodata "
      "426 store 450 busy 451 store 452 full 500 syntax 501 syntax 530 ready 532 account "
      "551 store 553 store 552 odd",
      "final-get;: 110 retr 125 retr 150 retr 226 ok 250 ok 421 closing 425 nodata 426 retr "
      "450 busy 451 retr 500 syntax 501 syntax 530 ready 550 gone 553 odd",
  };
  std::vector<std::string> rows;
  for (std::string t : tables) {
    size_t semi = t.find(';'), colon = t.find(':');
    std::string wire = t.substr(semi + 1, colon - semi - 1), code, result;
    std::istringstream pairs(t.substr(colon + 1));
    while (pairs >> code >> result)
      rows.push_back(t.substr(0, semi) + ";" + (wire.empty() ? "" : ">" + wire + "|") + "<" +
                     code + " reply;" + result);
  }
  run(rows, true);
}

// TYPE, STRU and MODE send nothing for the value last accepted (ASCII, file,
// stream at the start) nor for a value they refuse; a failed request is
// asked again. CWD to nowhere sends nothing; 500 and 502 go on with XCWD.
TEST_F(Commands, SettingsAreRemembered) {
  run({"TYPE 1;;ok", "STRU 1;;ok", "MODE 1;;ok", "STRU 2;;syntax", "MODE 3;;syntax",
       "TYPE 3;>TYPE I|<504 no;syntax", "TYPE 3;>TYPE I|<200 ok;ok", "TYPE 3;;ok",
       "TYPE 0;;syntax", "TYPE 2;;syntax", "TYPE 3;>TYPE I|<200 ok;ok",
       "STRU 1;>STRU F|<200 ok;ok", "MODE 1;>MODE S|<200 ok;ok", "CWD ;;ok", "CWD .;;ok",
       "CWD .in;>CWD .in|<502 no|>XCWD .in|<250 ok;ok",
       "CWD d;>CWD d|<500 what|>XCWD d|<504 no;odd"},
      false);
}

TEST(PasvLine, Parsing) {
  const struct {
    const char *line, *address;
    uint16_t port;
  } cases[] = {
      {"227 Entering Passive Mode (192,168,1,2,19,137).", "192.168.1.2", 19 * 256 + 137},
      {"227 =10,0,0,1,255,255 ok", "10.0.0.1", 65535},
      {"227 Entering Passive Mode (1,2,3,4,5,6,7)", "1.2.3.4", 1286},
      {"227 Entering Passive Mode (300,2,3,4,300,1)", "44.2.3.4", 44 * 256 + 1},
      {"227 Entering Passive Mode (1,2,3,4,5)", nullptr, 0},
      {"227 Entering Passive Mode", nullptr, 0},
      {"227 (1,2,3,4,,5,6)", nullptr, 0},
  };
  for (const auto &c : cases) {
    char line[128];
    strcpy(line, c.line);
    uint32_t address = 0;
    uint16_t port = 0;
    EXPECT_EQ(kelFTPCParsePasvReply(line, &address, &port), c.address ? KEL_OK : KEL_FTPC_BAD_REPLY);
    EXPECT_EQ(address, c.address ? inet_addr(c.address) : 0) << c.line;
    EXPECT_EQ(port, c.port) << c.line;
  }
}

}  // namespace
