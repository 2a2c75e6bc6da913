// Shared by the FTP client's tests. A case is two texts: the server's side
// as a transcript (transcript.h) and the client's calls with their results.
//
// The server's side also knows, with "|" ending a line as well:
//   <text        "S: text"         >text      "C: text"
//   login        greeting, USER u answered 230, PWD answered "/home"
//   pasv CONN    PASV answered with a listener of the peer; the client's
//                connection to it becomes CONN
//   port CONN    PASV refused with 502, then PORT heard with the address of
//                the client's end of the control connection; ${CONN.port}
//                holds the announced port for "connect CONN.port CONN"
//
// The calls, separated by "|", each "call arguments = result" (no "= ..."
// means ok); arguments are separated by one blank, "-" is an empty one:
//   attach             the control connection alone, no greeting, flags 0
//   connect [server]   log in as u with password p
//   put/append/get D F the protocol opens (image, file, stream)
//   wopen/ropen D F    the application's opens
//   write TEXT, read [TEXT]   (read: to the end; the bytes must be TEXT)
//   wclose, rclose, putclose, delete D F, abort, end
//   TYPE 3, CWD d, PORT, PASV, STOR f ...   one command exchange
//   final-put, final-get   the final reply after a data connection ended
//   flags = N, sockets = CDL (1: control, data, listener open), sep = C,
//   names = DIRECTORY,FILE (the transfer's names kept in the session)
#pragma once

#include <sys/socket.h>
#include <unistd.h>

#include <memory>
#include <sstream>
#include <string>
#include <vector>

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

std::vector<std::string> split(const std::string &text, char by);
void script(kt::TcpPeer &p, const std::string &text);
// One call of the calls' text; true when the session is gone.
bool call(kelFTPCSession *&s, const std::string &item, uint16_t port);

class Ftp : public kt::PoolGuard {
 protected:
  // Starts a fresh peer on the server's text (none when empty) and opens a
  // session to it, not yet connected.
  kelFTPCSession *open(const std::string &server, int timeoutMs = kWaitMs) {
    peer_.reset(new kt::TcpPeer);
    script(*peer_, server);
    if (!server.empty()) peer_->start();
    return kelFTPCProtoOpen(peer_->port(), timeoutMs);
  }
  // Closes the session with the result want; the script must have passed.
  void done(kelFTPCSession *s, kelResult want = KEL_OK) {
    if (s) {
      EXPECT_EQ(kelFTPCProtoClose(s), want);
    }
    EXPECT_TRUE(peer_->finish()) << peer_->failure();
  }
  // A case: the calls against the server, then the close.
  void run(const std::string &server, const std::string &calls, int timeoutMs = kWaitMs) {
    kelFTPCSession *s = open(server, timeoutMs);
    for (const std::string &item : split(calls, '|'))
      if (call(s, item, peer_->port())) s = nullptr;
    done(s);
  }
  std::unique_ptr<kt::TcpPeer> peer_;
};

}  // namespace ftpt
