// Data connections and transfers: passive and active mode, composed paths,
// the order of the application calls and the abort.

#include "ftp_test.h"

namespace {

using Transfer = ftpt::Ftp;
using ftpt::kShortMs;

// A store and a retrieve in passive mode: TYPE I on the first open only,
// never STRU or MODE, the bytes unchanged both ways, and the state rules
// around them.
TEST_F(Transfer, PassiveStoreThenRetrieve) {
  run("login|>TYPE I|<200 ok|pasv d1|>STOR /home/out/a.bin|<150 go|C-@d1 first\\0second|eof@d1|"
      "<226 stored|pasv d2|>RETR /home/in.txt|<125 go|SX@d2: 00 ff 0d 0a 41|close@d2|<226 sent|"
      ">QUIT|<221 bye|eof",
      "connect|wopen /home/out a.bin|flags=23|names=/home/out,a.bin|read=wrong|write first\\0|write -|"
      "write second|wclose|flags=3|names=,|write x=ready|ropen /home/ in.txt|read \\0\\xff\\r\\nA|"
      "flags=35|read=ready|get - x=notclosed|rclose|flags=3|end");
}

// Active mode after 502 to PASV, with the reply and the server's connection
// in either order or both there before STOR goes out.
TEST_F(Transfer, ActiveModeInEveryOrder) {
  for (const char *order : {"<200 port ok|>STOR /home/f|<150 go|stall 50|connect d.port d",
                            "<200 port ok|>STOR /home/f|connect d.port d|stall 50|<150 go",
                            "connect d.port d|<200 port ok|<150 go|>STOR /home/f"})
    run(std::string("login|>TYPE I|<200 ok|port d|") + order + "|C-@d payload|eof@d|<226 done|>QUIT|<221 bye|eof",
        "connect|wopen /home f|sockets=110|write payload|wclose");
}

// 150 and no connection: the open succeeds without a data connection, the
// first write fails and tears down, and the abort then sends nothing. A
// reply that times out while the connection waits takes the listener away
// before the accept.
TEST_F(Transfer, ActiveWithoutTheServersConnection) {
  run("login|>TYPE I|<200 ok|port d|<200 port ok|>STOR /home/f|<150 go|eof",
      "connect|put /home f|sockets=100|flags=23|write x=iofail|flags=18|sockets=000|abort", kShortMs);
  run("login|>TYPE I|<200 ok|port d|connect d.port d|<200 port ok|<150-going|>STOR /home/f|eof",
      "connect|put /home f=session|flags=2", kShortMs);
}

// Nothing falls back to active mode but 502 to PASV: not 500, not a 227
// that doesn't parse, not a passive connect that fails. A refused PORT
// leaves its listener to the close. A refused TYPE is asked again.
TEST_F(Transfer, DataConnectionFailures) {
  const uint16_t closed = kt::closedPort();
  run("login|>TYPE I|<504 no|>TYPE I|<200 ok|>PASV|<500 what|>PASV|<227 none|>PASV|<227 (127,0,0,1," +
          std::to_string(closed >> 8) + "," + std::to_string(closed & 0xff) + ")|port d|<502 no|>QUIT|<221 bye|eof",
      "connect|put /home f=syntax|put /home f=syntax|put /home f=odd|put /home f=connfail|put /home f=odd|"
      "flags=3|sockets=101|putclose|sockets=100");
}

// Composed paths with the backslash learnt at login: a directory ending in
// a separator gets none more; 255 bytes of names pass, 256 are refused
// before anything goes out; an empty directory gives the bare name. A
// second open before the close is refused (the application's open closes
// the transfer under way); a delete may run during a store.
TEST_F(Transfer, PathsAndOrderOfCalls) {
  const std::string d200(200, 'd'), f55 = " " + std::string(55, 'f'), f56 = f55 + "f";
  run("<220 hi|>USER u|<230 in|>PWD|<257 \"C:\\\\ftp\"|>TYPE I|<200 ok|pasv d|>STOR dir\\\\f|<150 go|>DELE " +
          d200 + "\\\\" + f55.substr(1) + "|<250 gone|eof@d|<226 ok|>DELE f|<550 no|>QUIT|<221 bye|eof",
      "connect|sep=\\|wopen " + d200 + f56 + "=odd|delete " + d200 + f56 + "=odd|wopen dir\\\\ f|"
      "append - f=active|delete " + d200 + f55 + "|wopen dir\\\\ f=active|flags=3|wclose|delete - f=dele");
}

// The calls' state tests on a session that isn't connected.
TEST_F(Transfer, CallsOutOfOrder) {
  run("", "wopen - f=ready|ropen=name|append - f=ready|write x=ready|read=ready|delete - f=ready|wclose|abort");
}

// The abort during a store deletes the file (not when its name filled the
// session's field); during a retrieve QUIT takes the pending reply.
TEST_F(Transfer, AbortEnd) {
  const std::string n127(127, 'n'), n128(128, 'n'), start = "login|>TYPE I|<200 ok|pasv d|>";
  run(start + "STOR /home/" + n127 + "|<150 go|eof@d|<426 broken|>DELE /home/" + n127 + "|<250 gone|>QUIT|<221 bye|eof",
      "connect|put /home " + n127 + "|abort");
  run(start + "STOR /home/" + n128 + "|<150 go|eof@d|<426 broken|>QUIT|<221 bye|eof", "connect|put /home " + n128 + "|abort");
  run(start + "RETR /home/g|<150 go|eof@d|<426 broken|>QUIT|eof", "connect|get /home g|abort=odd");
}

}  // namespace
