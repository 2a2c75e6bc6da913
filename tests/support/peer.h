// Scripted network peers for tests: a TCP peer that plays a transcript
// (send these bytes, expect exactly these bytes from the client, stall,
// close, open a second connection ...) on its own thread, and records what
// the client sent; and a UDP peer likewise.
#pragma once

#include <stdint.h>

#include <atomic>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <thread>
#include <vector>

namespace kt {

// Shows bytes with control characters escaped, for failure messages.
std::string printable(const std::string &bytes);

// Local IPv4 address 127.0.0.1 in network byte order.
uint32_t loopback();

class TcpPeer {
 public:
  // The control connection is named "ctl"; it is accepted on the peer's own
  // listener before the first step runs.
  static constexpr const char *kControl = "ctl";
  // How long any one step waits for the client before it fails.
  int stepTimeoutMs = 5000;

  // Listens on 127.0.0.1 at port; 0 takes any free port.
  explicit TcpPeer(uint16_t port = 0);
  ~TcpPeer();
  TcpPeer(const TcpPeer &) = delete;
  TcpPeer &operator=(const TcpPeer &) = delete;

  uint16_t port() const { return port_; }

  // --- steps, run in order by start() ---
  // Sends bytes; ${name} is replaced by the variable name (see below).
  TcpPeer &send(const std::string &bytes, const std::string &conn = kControl);
  // Reads exactly as many bytes as expected holds and compares them.
  TcpPeer &expect(const std::string &expected,
                  const std::string &conn = kControl);
  // Reads one line up to and including LF; it must match the ECMAScript
  // regex pattern as a whole. Groups 1.. are stored in the variables named.
  TcpPeer &expectLine(const std::string &pattern,
                      std::vector<std::string> captures = {},
                      const std::string &conn = kControl);
  // Reads until the client closes; everything read must equal expected.
  TcpPeer &expectAllThenEof(const std::string &expected,
                            const std::string &conn = kControl);
  // The client closes with nothing more sent.
  TcpPeer &expectEof(const std::string &conn = kControl) {
    return expectAllThenEof("", conn);
  }
  // Does nothing for ms milliseconds.
  TcpPeer &stall(int ms);
  TcpPeer &close(const std::string &conn = kControl);
  // Opens a listener; sets ${name.port}, ${name.p1}, ${name.p2} (port high
  // and low byte) for a PASV reply.
  TcpPeer &listen(const std::string &name);
  // Accepts one connection on listener into conn.
  TcpPeer &accept(const std::string &listener, const std::string &conn);
  // Connects to 127.0.0.1 at the port held in the variable portVariable.
  TcpPeer &connect(const std::string &portVariable, const std::string &conn);
  // Waits until the client's pending bytes have arrived, then checks that
  // none came.
  TcpPeer &expectQuiet(int ms, const std::string &conn = kControl);
  // Any other action.
  TcpPeer &step(std::function<bool(TcpPeer &)> action);

  // Runs the steps on a thread of their own.
  void start();
  // Waits for the script to end; true if every step passed. The sockets
  // stay open until the peer is destroyed or reset.
  bool finish();
  const std::string &failure() const { return failure_; }
  // Everything the client sent on conn.
  std::string received(const std::string &conn = kControl) const;
  std::string var(const std::string &name) const;
  void setVar(const std::string &name, const std::string &value);
  // Closes every socket but the listener of the control connection.
  void closeAll();

  // For custom steps.
  int fd(const std::string &conn) const;
  bool fail(const std::string &why);
  bool readSome(const std::string &conn, std::string &out, size_t max);

 private:
  std::string expand(const std::string &text) const;
  std::vector<std::function<bool(TcpPeer &)>> steps_;
  std::map<std::string, int> fds_;
  std::map<std::string, std::string> received_;
  std::map<std::string, std::string> vars_;
  std::string failure_;
  int listener_ = -1;
  uint16_t port_ = 0;
  std::thread thread_;
  bool started_ = false;
};

class UdpPeer {
 public:
  int stepTimeoutMs = 5000;
  // Binds address (network byte order; default 127.0.0.1) at port (0: any
  // free port).
  explicit UdpPeer(uint16_t port = 0, uint32_t address = loopback());
  ~UdpPeer();
  uint16_t port() const { return port_; }
  // Receives one datagram; it must equal expected. Remembers its sender.
  UdpPeer &expect(const std::string &expected);
  // Sends to the sender of the last datagram received.
  UdpPeer &reply(const std::string &bytes);
  UdpPeer &stall(int ms);
  void start();
  bool finish();
  const std::string &failure() const { return failure_; }
  const std::vector<std::string> &received() const { return received_; }

 private:
  std::vector<std::function<bool()>> steps_;
  std::vector<std::string> received_;
  std::string failure_;
  int fd_ = -1;
  uint16_t port_ = 0;
  uint32_t lastAddress_ = 0;
  uint16_t lastPort_ = 0;
  std::thread thread_;
  bool started_ = false;
};

}  // namespace kt
