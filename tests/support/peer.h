// Scripted network peers for tests: a TCP peer that plays a list of steps
// (send these bytes, expect exactly these bytes from the client, stall,
// close, open a second connection ...) on its own thread; and a UDP peer
// likewise. transcript.h writes the steps
// as text.
#pragma once

#include <netinet/in.h>
#include <stdint.h>

#include <functional>
#include <map>
#include <string>
#include <thread>
#include <vector>

namespace kt {

// Shows bytes with control characters and backslashes as \xNN (as
// transcript.h reads them back), for failure messages.
std::string printable(const std::string &bytes);

// Local IPv4 address 127.0.0.1 in network byte order.
uint32_t loopback();

// Steps run in order on a thread of their own until one fails.
class Script {
 public:
  // How long any one step waits for the client before it fails.
  int stepTimeoutMs = 5000;
  void start();
  // Waits for the script to end; true if every step passed. The sockets
  // stay open until the peer is destroyed.
  bool finish();
  const std::string &failure() const { return failure_; }
  // Records the first failure; false, to stop the script.
  bool fail(const std::string &why);

 protected:
  // True when fd has something to read (or its end) within the step's time.
  bool readable(int fd) const;
  void addStall(int ms);
  // After a failed step: ends the connections, so that a client waiting for
  // more doesn't wait out its time.
  virtual void hangUp() {}
  std::vector<std::function<bool()>> steps_;

 private:
  std::string failure_;
  std::thread thread_;
};

class TcpPeer : public Script {
 public:
  // The first connection to the peer's own listener, accepted before the
  // first step runs.
  static constexpr const char *kControl = "ctl";

  // Listens on 127.0.0.1 at port; 0 takes any free port.
  explicit TcpPeer(uint16_t port = 0);
  ~TcpPeer();
  uint16_t port() const { return port_; }

  // Opens a listener named name at once, before any step runs, and gives
  // its port.
  uint16_t listen(const std::string &name);

  // --- steps, run in order by start() ---
  TcpPeer &send(const std::string &bytes, const std::string &conn = kControl);
  // Reads exactly as many bytes as expected holds and compares them.
  TcpPeer &expect(const std::string &expected, const std::string &conn = kControl);
  // Reads one line up to and including LF; it must match the ECMAScript
  // regex pattern as a whole. Groups 1.. are stored in the variables named
  // (see var()).
  TcpPeer &expectLine(const std::string &pattern, std::vector<std::string> captures = {},
                      const std::string &conn = kControl);
  // The client closes with nothing more sent.
  TcpPeer &expectEof(const std::string &conn = kControl);
  TcpPeer &stall(int ms) { return addStall(ms), *this; }
  TcpPeer &close(const std::string &conn = kControl, bool reset = false);
  // Accepts one connection on listener into conn.
  TcpPeer &accept(const std::string &listener, const std::string &conn);
  // Connects to 127.0.0.1 at the port held in the variable portVariable,
  // written as a number or as high and low byte "h,l" (as PORT sends it).
  TcpPeer &connect(const std::string &portVariable, const std::string &conn);
  // Any other action; it returns false (through fail()) to stop the script.
  TcpPeer &step(std::function<bool(TcpPeer &)> action);

  // For steps of their own: a variable ("" if unset), the socket of conn
  // (-1 if none), and one receive of at most max bytes on conn appended to
  // out: the count, 0 at the client's close, -1 on time-out or error.
  std::string var(const std::string &name) const { return vars_.count(name) ? vars_.at(name) : ""; }
  int fd(const std::string &conn) const { return fds_.count(conn) ? fds_.at(conn) : -1; }
  ssize_t receive(const std::string &conn, std::string &out, size_t max);

 private:
  std::map<std::string, int> fds_;
  std::map<std::string, std::string> vars_;
  uint16_t port_ = 0;
  void hangUp() override;
};

class UdpPeer : public Script {
 public:
  // Binds address (network byte order; default 127.0.0.1) at port (0: any
  // free port).
  explicit UdpPeer(uint16_t port = 0, uint32_t address = loopback());
  ~UdpPeer();
  uint16_t port() const { return port_; }
  // Receives one datagram; it must equal expected. Remembers its sender.
  UdpPeer &expect(const std::string &expected);
  // Sends to the sender of the last datagram received.
  UdpPeer &reply(const std::string &bytes);
  UdpPeer &stall(int ms) { return addStall(ms), *this; }

 private:
  int fd_ = -1;
  uint16_t port_ = 0;
  sockaddr_in last_ = {};
};

}  // namespace kt
