// Shared by the FTP client's transcript tests: a scripted server on a
// kt::TcpPeer, written as the lines each side says, and sessions made
// against it.
#pragma once

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>

#include <string>

#include <gtest/gtest.h>

#include "ftp/ftp_internal.h"
#include "peer.h"
#include "pool_guard.h"

namespace ftpt {

// Time-out of a session that is never meant to wait one out, and of one
// that is: only the latter costs its time.
constexpr int kWaitMs = 1500;
constexpr int kShortMs = 200;

// Builds the server's side of a conversation. Lines go without CRLF.
class Script {
 public:
  explicit Script(kt::TcpPeer &peer) : p(peer) {
    p.stepTimeoutMs = 3000;
    noDelay(kt::TcpPeer::kControl);
  }

  // The server sends line.
  Script &say(const std::string &line, const std::string &conn = kt::TcpPeer::kControl) {
    p.send(line + "\r\n", conn);
    return *this;
  }
  // The client must send exactly line.
  Script &hear(const std::string &line) {
    p.expect(line + "\r\n");
    return *this;
  }
  Script &x(const std::string &command, const std::string &reply) {
    return hear(command).say(reply);
  }
  // A road written as "<server line|>client line|...".
  Script &road(const std::string &text) {
    size_t at = 0;
    while (at < text.size()) {
      size_t end = text.find('|', at);
      if (end == std::string::npos) end = text.size();
      std::string line = text.substr(at + 1, end - at - 1);
      if (text[at] == '<') say(line);
      else hear(line);
      at = end + 1;
    }
    return *this;
  }
  // Greeting, USER answered by 230, PWD answered with directory.
  Script &login(const std::string &directory = "/home") {
    return say("220 ready").x("USER u", "230 in").x("PWD", "257 \"" + directory + "\" is current");
  }
  // PASV answered with a listener of the peer; the client's connection
  // to it becomes conn.
  Script &passive(const std::string &conn = "data") {
    p.expect("PASV\r\n").listen(conn + "L");
    say("227 Entering Passive Mode (127,0,0,1,${" + conn + "L.p1},${" + conn + "L.p2}).");
    p.accept(conn + "L", conn);
    return noDelay(conn);
  }
  // PASV refused with 502, then PORT heard with the address of the client's
  // end of the control connection; ${conn.port} is the announced port.
  Script &active(const std::string &conn = "data") {
    x("PASV", "502 not here");
    p.expectLine("PORT 127,0,0,1,(\\d+),(\\d+)\r\n", {conn + ".hi", conn + ".lo"});
    p.step([conn](kt::TcpPeer &q) {
      q.setVar(conn + ".port", std::to_string(std::stoi(q.var(conn + ".hi")) * 256 +
                                              std::stoi(q.var(conn + ".lo"))));
      return true;
    });
    return *this;
  }
  // The server connects to the port that the client announced.
  Script &connect(const std::string &conn = "data") {
    p.connect(conn + ".port", conn);
    return noDelay(conn);
  }
  // Small sends of the server go out at once, not held back until the
  // client's delayed acknowledgement.
  Script &noDelay(const std::string &conn) {
    p.step([conn](kt::TcpPeer &q) {
      int on = 1;
      setsockopt(q.fd(conn), IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
      return true;
    });
    return *this;
  }
  Script &eof(const std::string &conn = kt::TcpPeer::kControl) {
    p.expectEof(conn);
    return *this;
  }
  Script &quit() { return x("QUIT", "221 bye").eof(); }

  kt::TcpPeer &p;
};

// A session whose control socket is connected to the peer: no greeting, no
// login, flags 0. The peer must have been started.
inline kelFTPCSession *attach(kt::TcpPeer &peer, int timeoutMs = kWaitMs) {
  kelFTPCSession *s = kelFTPCProtoOpen(peer.port(), timeoutMs);
  if (s == nullptr) return nullptr;
  if (kelFTPCOpenSocket(&s->controlSocket) == -1 ||
      kelFTPCConnectSocket(&s->controlSocket, kt::loopback(), peer.port(), timeoutMs) != KEL_OK) {
    kelFTPCProtoClose(s);
    return nullptr;
  }
  return s;
}

inline kelResult connect(kelFTPCSession *s, const char *user = "u", const char *password = "p") {
  return kelFTPCProtoConnect(s, "127.0.0.1", user, password);
}

// A session logged in through the peer's script, which starts with login().
inline kelFTPCSession *loggedIn(kt::TcpPeer &peer, int timeoutMs = kWaitMs) {
  kelFTPCSession *s = kelFTPCProtoOpen(peer.port(), timeoutMs);
  if (s != nullptr && connect(s) != KEL_OK) {
    kelFTPCProtoClose(s);
    s = nullptr;
  }
  return s;
}

}  // namespace ftpt
