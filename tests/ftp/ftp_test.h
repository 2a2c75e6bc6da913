// Shared by the FTP client's tests: a scripted server written as a
// transcript, with shorthands of its own, and sessions made against it.
// "|" also ends a line; "<text" is "S: text", ">text" is "C: text".
//
//   login        greeting, USER u answered 230, PWD answered "/home"
//   pasv CONN    PASV answered with a listener of the peer; the client's
//                connection to it becomes CONN
//   port CONN    PASV refused with 502, then PORT heard with the address of
//                the client's end of the control connection; ${CONN.port}
//                holds the announced port for "connect CONN.port CONN"
#pragma once

#include <sys/socket.h>
#include <unistd.h>

#include <memory>
#include <sstream>
#include <string>

#include <gtest/gtest.h>

#include "ftp/ftp_internal.h"
#include "pool_guard.h"
#include "sockets.h"
#include "transcript.h"

namespace ftpt {

// Time-out of a session that is never meant to wait one out, and of one
// that is: only the latter costs its time.
constexpr int kWaitMs = 1500;
constexpr int kShortMs = 200;
constexpr uint32_t kReady = KEL_FTPC_CONNECTED | KEL_FTPC_LOGGED_IN;

inline void script(kt::TcpPeer &p, const std::string &text) {
  p.stepTimeoutMs = 3000;
  std::string all = text;
  for (char &c : all) c = c == '|' ? '\n' : c;
  std::istringstream lines(all);
  std::string line, word, conn;
  while (std::getline(lines, line)) {
    line.erase(0, line.find_first_not_of(" "));
    std::istringstream(line) >> word >> conn;
    if (line[0] == '<' || line[0] == '>') {
      kt::play(p, (line[0] == '<' ? "S: " : "C: ") + line.substr(1));
    } else if (word == "login") {
      kt::play(p, "S: 220 ready\nC: USER u\nS: 230 in\nC: PWD\nS: 257 \"/home\" is current");
    } else if (word == "pasv") {
      kt::play(p, "C: PASV\nlisten " + conn + "L\nS: 227 Entering Passive Mode (127,0,0,1,${" +
                      conn + "L.p1},${" + conn + "L.p2}).\naccept " + conn + "L " + conn);
    } else if (word == "port") {
      kt::play(p, "C: PASV\nS: 502 not here");
      p.expectLine("PORT 127,0,0,1,(\\d+),(\\d+)\r\n", {"hi", "lo"});
      p.step([conn](kt::TcpPeer &q) {
        q.setVar(conn + ".port", std::to_string(stoi(q.var("hi")) * 256 + stoi(q.var("lo"))));
        return true;
      });
    } else {
      kt::play(p, line);
    }
    word.clear();
  }
}

class Ftp : public kt::PoolGuard {
 protected:
  // Starts a fresh peer on text. Then a session to it: logged in when the text
  // starts with login; else with only its control socket connected, flags 0,
  // when attach; else not connected at all.
  kelFTPCSession *open(const std::string &text, int timeoutMs = kWaitMs, bool attach = true) {
    peer_.reset(new kt::TcpPeer);
    script(*peer_, text);
    peer_->start();
    kelFTPCSession *s = kelFTPCProtoOpen(peer_->port(), timeoutMs);
    size_t first = text.find_first_not_of(" \n");
    if (first != std::string::npos && text.compare(first, 5, "login") == 0) {
      EXPECT_EQ(kelFTPCProtoConnect(s, "127.0.0.1", "u", "p"), KEL_OK);
    } else if (attach) {
      kelFTPCOpenSocket(&s->controlSocket);
      kelFTPCConnectSocket(&s->controlSocket, kt::loopback(), peer_->port(), timeoutMs);
    }
    return s;
  }
  // Closes the session with the result want; the script must have passed.
  void done(kelFTPCSession *s, kelResult want = KEL_OK) {
    EXPECT_EQ(kelFTPCProtoClose(s), want);
    EXPECT_TRUE(peer_->finish()) << peer_->failure();
  }
  std::unique_ptr<kt::TcpPeer> peer_;
};

}  // namespace ftpt
