// The command exchanges: every reply table row by row, the remembered
// transfer settings, and the parsing of a 227 line.

#include <arpa/inet.h>
#include <string.h>

#include <sstream>

#include "ftp_test.h"

namespace {

using Commands = ftpt::Ftp;

// Each table: the call, what goes out, then reply codes and their results.
TEST_F(Commands, EveryReplyTableRowByRow) {
  const char *tables[] = {
      "TYPE 3;TYPE I: 421 closing 500 syntax 501 syntax 504 syntax 530 ready 100 odd 200 ok",
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
  std::string server, calls = "attach";
  for (std::string t : tables) {
    size_t semi = t.find(';'), colon = t.find(':');
    std::string wire = t.substr(semi + 1, colon - semi - 1), code, result;
    for (std::istringstream pairs(t.substr(colon + 1)); pairs >> code >> result;) {
      server += (wire.empty() ? "" : ">" + wire + "|") + "<" + code + " reply|";
      calls += "|" + t.substr(0, semi) + "=" + result;
    }
  }
  run(server + "eof", calls);
}

// TYPE, STRU and MODE send nothing for the value last accepted (ASCII, file,
// stream at the start) nor for a value they refuse; a failed request is
// asked again. CWD to nowhere sends nothing; 500 and 502 go on with XCWD.
TEST_F(Commands, SettingsAreRemembered) {
  run(">TYPE I|<504 no|>TYPE I|<200 ok|>TYPE I|<200 ok|>STRU F|<200 ok|>MODE S|<200 ok|>CWD .in|<502 no|"
      ">XCWD .in|<250 ok|>CWD d|<500 what|>XCWD d|<504 no|eof",
      "attach|TYPE 1|STRU 1|MODE 1|STRU 2=syntax|MODE 3=syntax|TYPE 3=syntax|TYPE 3|TYPE 3|TYPE 0=syntax|"
      "TYPE 2=syntax|TYPE 3|STRU 1|MODE 1|CWD -|CWD .|CWD .in|CWD d=odd");
}

// The numbers are the last run of digits and commas; nothing is written
// beyond the address and the port.
TEST(PasvLine, Parsing) {
  const char *cases[][3] = {
      {"227 Entering Passive Mode (192,168,1,2,19,137).", "192.168.1.2", "5001"},
      {"227 =10,0,0,1,255,255 ok", "10.0.0.1", "65535"},
      {"227 Entering Passive Mode (1,2,3,4,5,6,7)", "1.2.3.4", "1286"},
      {"227 Entering Passive Mode (300,2,3,4,300,1)", "44.2.3.4", "11265"},
      {"227 Entering Passive Mode (1,2,3,4,5)", "0.0.0.0", "0"},
      {"227 (1,2,3,4,,5,6)", "0.0.0.0", "0"},
  };
  for (auto &c : cases) {
    char line[64];
    uint32_t address[2] = {0, 0};
    uint16_t port = 0;
    kelResult r = kelFTPCParsePasvReply(strcpy(line, c[0]), address, &port);
    EXPECT_EQ(r, atoi(c[2]) ? KEL_OK : KEL_FTPC_BAD_REPLY) << c[0];
    EXPECT_EQ(address[0], inet_addr(c[1])) << c[0];
    EXPECT_EQ(port + address[1], atoi(c[2])) << c[0];
  }
}

}  // namespace
