#include "peer.h"

#include <arpa/inet.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <unistd.h>

#include <chrono>
#include <regex>

#include "sockets.h"

namespace kt {

std::string printable(const std::string &bytes) {
  std::string out;
  char hex[8];
  for (unsigned char c : bytes) {
    snprintf(hex, sizeof hex, c == '\r' ? "\\r" : c == '\n' ? "\\n" : c == '\\' ? "\\\\"
                              : c < 0x20 || c >= 0x7f ? "\\x%02x" : "%c", c);
    out += hex;
  }
  return out;
}

uint32_t loopback() { return htonl(INADDR_LOOPBACK); }

static bool readable(int fd, int ms) {
  pollfd p{fd, POLLIN, 0};
  return fd >= 0 && poll(&p, 1, ms) > 0;
}

// Small sends go out at once, not held back for the client's delayed
// acknowledgement.
static int noDelay(int fd) {
  int on = 1;
  setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
  return fd;
}

static bool pause(int ms) {
  std::this_thread::sleep_for(std::chrono::milliseconds(ms));
  return true;
}

void Script::start() {
  thread_ = std::thread([this] {
    for (auto &s : steps_)
      if (!s()) return;
  });
}

bool Script::finish() {
  if (thread_.joinable()) thread_.join();
  return failure_.empty();
}

bool Script::fail(const std::string &why) {
  if (failure_.empty()) failure_ = why;
  return false;
}

// The peer's own listener is the connection named "", and the first step
// accepts the control connection from it.
TcpPeer::TcpPeer(uint16_t port) : port_(port) {
  fds_[""] = listenLoopback(8, &port_);
  accept("", kControl);
}

TcpPeer::~TcpPeer() {
  finish();
  for (auto &entry : fds_) ::close(entry.second);
}

std::string TcpPeer::expand(const std::string &text) const {
  std::string out;
  size_t i = 0, open, close;
  for (; (open = text.find("${", i)) != std::string::npos && (close = text.find('}', open)) != std::string::npos;
       i = close + 1)
    out += text.substr(i, open - i) + var(text.substr(open + 2, close - open - 2));
  return out + text.substr(i);
}

bool TcpPeer::readSome(const std::string &conn, std::string &out, size_t max) {
  char buffer[65536];
  ssize_t n = readable(fd(conn), stepTimeoutMs) ? recv(fd(conn), buffer, std::min(max, sizeof buffer), 0) : -1;
  if (n <= 0) return fail((n ? "nothing came on " : "client closed ") + conn + " after " + printable(out));
  out.append(buffer, static_cast<size_t>(n));
  received_[conn].append(buffer, static_cast<size_t>(n));
  return true;
}

TcpPeer &TcpPeer::step(std::function<bool(TcpPeer &)> action) {
  steps_.push_back([this, action] { return action(*this); });
  return *this;
}

TcpPeer &TcpPeer::send(const std::string &bytes, const std::string &conn) {
  return step([bytes, conn](TcpPeer &p) {
    std::string text = p.expand(bytes);
    return ::send(p.fd(conn), text.data(), text.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(text.size()) ||
           p.fail("send failed on " + conn);
  });
}

TcpPeer &TcpPeer::expect(const std::string &expected, const std::string &conn) {
  return step([expected, conn](TcpPeer &p) {
    std::string want = p.expand(expected), got;
    while (got.size() < want.size())
      if (!p.readSome(conn, got, want.size() - got.size()))
        return p.fail(p.failure_ + "; expected " + printable(want));
    return got == want || p.fail("expected " + printable(want) + " got " + printable(got));
  });
}

TcpPeer &TcpPeer::expectLine(const std::string &pattern, std::vector<std::string> captures,
                              const std::string &conn) {
  return step([pattern, captures, conn](TcpPeer &p) {
    std::string line;
    std::smatch m;
    while (line.empty() || line.back() != '\n')
      if (!p.readSome(conn, line, 1)) return false;
    if (!std::regex_match(line, m, std::regex(pattern)))
      return p.fail("line " + printable(line) + " doesn't match " + pattern);
    for (size_t i = 0; i < captures.size() && i + 1 < m.size(); i++) p.vars_[captures[i]] = m[i + 1].str();
    return true;
  });
}

TcpPeer &TcpPeer::expectEof(const std::string &conn) {
  return step([conn](TcpPeer &p) {
    char c;
    ssize_t n = readable(p.fd(conn), p.stepTimeoutMs) ? recv(p.fd(conn), &c, 1, 0) : -1;
    if (n > 0) p.received_[conn] += c;
    return n == 0 || p.fail(n > 0 ? "expected the end of " + conn + ", got " + printable(std::string(1, c))
                                  : "no end of " + conn);
  });
}

TcpPeer &TcpPeer::stall(int ms) {
  return step([ms](TcpPeer &) { return pause(ms); });
}

TcpPeer &TcpPeer::close(const std::string &conn) {
  return step([conn](TcpPeer &p) {
    if (!p.fds_.count(conn)) return p.fail("no connection " + conn + " to close");
    ::close(p.fds_[conn]);
    return p.fds_.erase(conn) == 1;
  });
}

TcpPeer &TcpPeer::listen(const std::string &name) {
  return step([name](TcpPeer &p) {
    uint16_t port = 0;
    p.fds_[name] = listenLoopback(8, &port);
    p.vars_[name + ".port"] = std::to_string(port);
    p.vars_[name + ".p1"] = std::to_string(port >> 8);
    p.vars_[name + ".p2"] = std::to_string(port & 0xff);
    return p.fds_[name] >= 0 || p.fail("can't listen for " + name);
  });
}

TcpPeer &TcpPeer::accept(const std::string &listener, const std::string &conn) {
  return step([listener, conn](TcpPeer &p) {
    int f = readable(p.fd(listener), p.stepTimeoutMs) ? ::accept(p.fd(listener), nullptr, nullptr) : -1;
    if (f >= 0) p.fds_[conn] = noDelay(f);
    return f >= 0 || p.fail("no connection came to the listener " + listener);
  });
}

TcpPeer &TcpPeer::connect(const std::string &portVariable, const std::string &conn) {
  return step([portVariable, conn](TcpPeer &p) {
    int f = p.fds_[conn] = noDelay(socket(AF_INET, SOCK_STREAM, 0));
    sockaddr_in a = loopbackAddress(static_cast<uint16_t>(atoi(p.var(portVariable).c_str())));
    return ::connect(f, reinterpret_cast<sockaddr *>(&a), sizeof a) == 0 ||
           p.fail("can't connect to the client's port " + p.var(portVariable));
  });
}

UdpPeer::UdpPeer(uint16_t port, uint32_t address) : fd_(socket(AF_INET, SOCK_DGRAM, 0)) {
  sockaddr_in a = loopbackAddress(port);
  a.sin_addr.s_addr = address;
  socklen_t len = sizeof a;
  sockaddr *at = reinterpret_cast<sockaddr *>(&a);
  if (bind(fd_, at, len) == 0 && getsockname(fd_, at, &len) == 0) port_ = ntohs(a.sin_port);
}

UdpPeer::~UdpPeer() {
  finish();
  ::close(fd_);
}

UdpPeer &UdpPeer::expect(const std::string &expected) {
  steps_.push_back([this, expected] {
    char buffer[65536];
    socklen_t len = sizeof last_;
    sockaddr *from = reinterpret_cast<sockaddr *>(&last_);
    ssize_t n = readable(fd_, stepTimeoutMs) ? recvfrom(fd_, buffer, sizeof buffer, 0, from, &len) : -1;
    if (n < 0) return fail("no datagram came");
    std::string &got = received_.emplace_back(buffer, static_cast<size_t>(n));
    return got == expected || fail("expected " + printable(expected) + " got " + printable(got));
  });
  return *this;
}

UdpPeer &UdpPeer::reply(const std::string &bytes) {
  steps_.push_back([this, bytes] {
    return sendto(fd_, bytes.data(), bytes.size(), 0, reinterpret_cast<sockaddr *>(&last_), sizeof last_) ==
               static_cast<ssize_t>(bytes.size()) || fail("send failed");
  });
  return *this;
}

UdpPeer &UdpPeer::stall(int ms) {
  steps_.push_back([ms] { return pause(ms); });
  return *this;
}

}  // namespace kt
