// The scripted peers, the socket helpers of sockets.h and the transcripts of
// transcript.h.
#include "peer.h"

#include <arpa/inet.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <regex>
#include <sstream>

#include "sockets.h"
#include "transcript.h"

namespace kt {

std::string printable(const std::string &bytes) {
  std::string out;
  for (unsigned char c : bytes) {
    char shown[8];
    snprintf(shown, sizeof shown, c < 0x20 || c >= 0x7f || c == '\\' ? "\\x%02x" : "%c", c);
    out += shown;
  }
  return out;
}

uint32_t loopback() { return htonl(INADDR_LOOPBACK); }

sockaddr_in loopbackAddress(uint16_t port) { return {AF_INET, htons(port), {loopback()}, {}}; }

// A TCP listener on 127.0.0.1 at *port (0: a free port, stored in *port);
// -1 if none.
static int listenLoopback(int backlog, uint16_t *port) {
  int l = socket(AF_INET, SOCK_STREAM, 0), on = 1;
  sockaddr_in a = loopbackAddress(*port);
  socklen_t len = sizeof a;
  sockaddr *at = reinterpret_cast<sockaddr *>(&a);
  setsockopt(l, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
  // Small sends of the accepted connections, which inherit this, go out at
  // once, not held back for the client's delayed acknowledgement.
  setsockopt(l, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
  if (bind(l, at, len) == 0 && ::listen(l, backlog) == 0 && getsockname(l, at, &len) == 0) {
    *port = ntohs(a.sin_port);
    return l;
  }
  ::close(l);
  return -1;
}

uint16_t closedPort() {
  uint16_t port = 0;
  ::close(listenLoopback(1, &port));
  return port;
}

// The sockets that keep full ports full, closed by closeHeldSockets().
static std::vector<int> held;

void closeHeldSockets() {
  for (int s : held) ::close(s);
  held.clear();
}

uint16_t fullPort() {
  uint16_t port = 0;
  held.push_back(listenLoopback(0, &port));
  sockaddr_in a = loopbackAddress(held.back() < 0 ? 0 : port);
  // Connect without accepting until an attempt no longer completes.
  for (int i = 0; port != 0 && i < 16; i++) {
    int s = socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK, 0);
    held.push_back(s);
    pollfd p{s, POLLOUT, 0};
    if (::connect(s, reinterpret_cast<sockaddr *>(&a), sizeof a) != 0 && poll(&p, 1, 200) == 0) return port;
  }
  return 0;
}

void Script::start() {
  thread_ = std::thread([this] {
    if (!std::all_of(steps_.begin(), steps_.end(), [](auto &s) { return s(); })) hangUp();
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

bool Script::readable(int fd) const {
  pollfd p{fd, POLLIN, 0};
  return fd >= 0 && poll(&p, 1, stepTimeoutMs) > 0;
}

void Script::addStall(int ms) {
  steps_.push_back([ms] { return std::this_thread::sleep_for(std::chrono::milliseconds(ms)), true; });
}

// The peer's own listener is the connection named "", and the first step
// accepts the control connection from it.
TcpPeer::TcpPeer(uint16_t port) : port_(port) {
  fds_[""] = listenLoopback(8, &port_);
  accept("", kControl);
}

// The client reads the end of each connection; a listener ignores it and
// stays for later connects.
void TcpPeer::hangUp() {
  for (auto &entry : fds_) shutdown(entry.second, SHUT_WR);
}

TcpPeer::~TcpPeer() {
  finish();
  for (auto &entry : fds_) ::close(entry.second);
}

ssize_t TcpPeer::receive(const std::string &conn, std::string &out, size_t max) {
  char buffer[65536];
  ssize_t n = readable(fd(conn)) ? recv(fd(conn), buffer, std::min(max, sizeof buffer), 0) : -1;
  out.append(buffer, n > 0 ? static_cast<size_t>(n) : 0);
  return n;
}

TcpPeer &TcpPeer::step(std::function<bool(TcpPeer &)> action) {
  steps_.push_back([this, action] { return action(*this); });
  return *this;
}

TcpPeer &TcpPeer::send(const std::string &bytes, const std::string &conn) {
  return step([bytes, conn](TcpPeer &p) {
    return ::send(p.fd(conn), bytes.data(), bytes.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(bytes.size()) ||
           p.fail("send failed on " + conn);
  });
}

TcpPeer &TcpPeer::expect(const std::string &expected, const std::string &conn) {
  return step([expected, conn](TcpPeer &p) {
    std::string got;
    // Reads on while what came so far is the expected bytes' beginning.
    while (got.size() < expected.size() && expected.compare(0, got.size(), got) == 0 &&
           p.receive(conn, got, expected.size() - got.size()) > 0) {
    }
    return got == expected || p.fail(conn + ": expected " + printable(expected) + ", got " + printable(got));
  });
}

TcpPeer &TcpPeer::expectLine(const std::string &pattern, std::vector<std::string> captures,
                              const std::string &conn) {
  return step([pattern, captures, conn](TcpPeer &p) {
    std::string line;
    std::smatch m;
    while ((line.empty() || line.back() != '\n') && p.receive(conn, line, 1) > 0) {
    }
    if (!std::regex_match(line, m, std::regex(pattern)))
      return p.fail("line " + printable(line) + " doesn't match " + pattern);
    for (size_t i = 0; i < captures.size() && i + 1 < m.size(); i++) p.vars_[captures[i]] = m[i + 1].str();
    return true;
  });
}

TcpPeer &TcpPeer::expectEof(const std::string &conn) {
  return step([conn](TcpPeer &p) {
    std::string got;
    ssize_t n = p.receive(conn, got, 1);
    return n == 0 || p.fail("expected the end of " + conn + ", got " + (n < 0 ? "nothing" : printable(got)));
  });
}

TcpPeer &TcpPeer::close(const std::string &conn, bool reset) {
  return step([conn, reset](TcpPeer &p) {
    linger now = {reset, 0};  // on: the close sends a reset
    setsockopt(p.fd(conn), SOL_SOCKET, SO_LINGER, &now, sizeof now);
    ::close(p.fd(conn));
    return p.fds_.erase(conn) == 1 || p.fail("no connection " + conn + " to close");
  });
}

uint16_t TcpPeer::listen(const std::string &name) {
  uint16_t port = 0;
  fds_[name] = listenLoopback(8, &port);
  return port;
}

TcpPeer &TcpPeer::accept(const std::string &listener, const std::string &conn) {
  return step([listener, conn](TcpPeer &p) {
    int f = p.readable(p.fd(listener)) ? ::accept(p.fd(listener), nullptr, nullptr) : -1;
    if (f >= 0) p.fds_[conn] = f;
    return f >= 0 || p.fail("no connection came to the listener " + listener);
  });
}

TcpPeer &TcpPeer::connect(const std::string &portVariable, const std::string &conn) {
  return step([portVariable, conn](TcpPeer &p) {
    int high = 0, low = -1, f = p.fds_[conn] = socket(AF_INET, SOCK_STREAM, 0);
    sscanf(p.var(portVariable).c_str(), "%d,%d", &high, &low);
    sockaddr_in a = loopbackAddress(static_cast<uint16_t>(low < 0 ? high : high * 256 + low));
    return ::connect(f, reinterpret_cast<sockaddr *>(&a), sizeof a) == 0 ||
           p.fail("can't connect to the client's port " + p.var(portVariable));
  });
}

UdpPeer::UdpPeer(uint16_t port, uint32_t address) : fd_(socket(AF_INET, SOCK_DGRAM, 0)) {
  sockaddr_in a = {AF_INET, htons(port), {address}, {}};
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
    ssize_t n = readable(fd_) ? recvfrom(fd_, buffer, sizeof buffer, 0, from, &len) : -1;
    std::string got(buffer, n > 0 ? static_cast<size_t>(n) : 0);
    return (n >= 0 && got == expected) || fail("expected " + printable(expected) + " got " + printable(got));
  });
  return *this;
}

UdpPeer &UdpPeer::reply(const std::string &bytes) {
  steps_.push_back([this, bytes] {
    sockaddr *to = reinterpret_cast<sockaddr *>(&last_);
    return sendto(fd_, bytes.data(), bytes.size(), 0, to, sizeof last_) == static_cast<ssize_t>(bytes.size()) ||
           fail("send failed");
  });
  return *this;
}

std::string unescape(const std::string &text) {
  static const std::map<char, char> named = {{'r', '\r'}, {'n', '\n'}, {'t', '\t'}, {'0', '\0'}};
  std::string out;
  for (size_t i = 0; i < text.size(); i++) {
    char c = text[i];
    if (c == '\\' && i + 1 < text.size()) {
      c = text[++i];
      if (c == 'x') {
        c = static_cast<char>(strtol(text.substr(i + 1, 2).c_str(), nullptr, 16));
        i += 2;
      } else if (named.count(c)) {
        c = named.at(c);
      }
    }
    out += c;
  }
  return out;
}

std::string unhex(const std::string &hex) {
  std::string out, digits = std::regex_replace(hex, std::regex("\\s"), "");
  for (size_t i = 0; i + 1 < digits.size(); i += 2)
    out += static_cast<char>(strtol(digits.substr(i, 2).c_str(), nullptr, 16));
  return out;
}

TcpPeer &play(TcpPeer &peer, const std::string &script) {
  std::istringstream lines(script);
  for (std::string line; std::getline(lines, line);) {
    std::istringstream words(line);
    std::string verb, conn = TcpPeer::kControl, arg, first, second;
    if (!(words >> verb)) continue;
    if (words.get() == ' ') std::getline(words, arg);
    std::istringstream(arg) >> first >> second;
    std::smatch m;  // "S@data:" is "S:" on data
    std::regex_match(verb, m, std::regex("([^@]+)(@([^:]+))?(:?)"));
    if (m[3].matched) conn = m[3];
    verb = m.str(1) + m.str(4);
    if (std::regex_match(verb, std::regex("[SC](:|-|X:)"))) {
      std::string bytes = verb[1] == 'X' ? unhex(arg) : unescape(arg) + (verb[1] == ':' ? "\r\n" : "");
      verb[0] == 'S' ? peer.send(bytes, conn) : peer.expect(bytes, conn);
    } else if (verb == "stall") peer.stall(atoi(arg.c_str()));
    else if (verb == "close") peer.close(conn);
    else if (verb == "eof") peer.expectEof(conn);
    else if (verb == "listen") peer.listen(arg);
    else if (verb == "accept") peer.accept(first, second);
    else if (verb == "connect") peer.connect(first, second);
    else peer.step([line](TcpPeer &p) { return p.fail("bad script line: " + line); });
  }
  return peer;
}

}  // namespace kt
