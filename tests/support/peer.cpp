#include "peer.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <regex>

namespace kt {

std::string printable(const std::string &bytes) {
  std::string out;
  for (unsigned char c : bytes) {
    if (c == '\r') out += "\\r";
    else if (c == '\n') out += "\\n";
    else if (c == '\\') out += "\\\\";
    else if (c < 0x20 || c >= 0x7f) {
      char hex[8];
      snprintf(hex, sizeof hex, "\\x%02x", c);
      out += hex;
    } else out += static_cast<char>(c);
  }
  return out;
}

uint32_t loopback() { return htonl(INADDR_LOOPBACK); }

namespace {

// Listens on 127.0.0.1 at *port (0: any free port) and stores the port.
int listenLoopback(uint16_t *port) {
  int fd = socket(AF_INET, SOCK_STREAM, 0);
  int on = 1;
  setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
  sockaddr_in a{};
  a.sin_family = AF_INET;
  a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  a.sin_port = htons(*port);
  if (bind(fd, reinterpret_cast<sockaddr *>(&a), sizeof a) != 0 ||
      ::listen(fd, 8) != 0) {
    ::close(fd);
    return -1;
  }
  socklen_t len = sizeof a;
  getsockname(fd, reinterpret_cast<sockaddr *>(&a), &len);
  *port = ntohs(a.sin_port);
  return fd;
}

bool waitReadable(int fd, int ms) {
  pollfd p{fd, POLLIN, 0};
  return poll(&p, 1, ms) > 0;
}

}  // namespace

TcpPeer::TcpPeer(uint16_t port) : port_(port) {
  listener_ = listenLoopback(&port_);
}

TcpPeer::~TcpPeer() {
  if (started_) finish();
  closeAll();
  if (listener_ >= 0) ::close(listener_);
}

void TcpPeer::closeAll() {
  for (auto &entry : fds_)
    if (entry.second >= 0) ::close(entry.second);
  fds_.clear();
}

int TcpPeer::fd(const std::string &conn) const {
  auto it = fds_.find(conn);
  return it == fds_.end() ? -1 : it->second;
}

bool TcpPeer::fail(const std::string &why) {
  if (failure_.empty()) failure_ = why;
  return false;
}

std::string TcpPeer::var(const std::string &name) const {
  auto it = vars_.find(name);
  return it == vars_.end() ? std::string() : it->second;
}

void TcpPeer::setVar(const std::string &name, const std::string &value) {
  vars_[name] = value;
}

std::string TcpPeer::received(const std::string &conn) const {
  auto it = received_.find(conn);
  return it == received_.end() ? std::string() : it->second;
}

std::string TcpPeer::expand(const std::string &text) const {
  std::string out;
  size_t i = 0;
  while (i < text.size()) {
    size_t open = text.find("${", i);
    if (open == std::string::npos) break;
    size_t close = text.find('}', open);
    if (close == std::string::npos) break;
    out += text.substr(i, open - i);
    out += var(text.substr(open + 2, close - open - 2));
    i = close + 1;
  }
  return out + text.substr(i);
}

bool TcpPeer::readSome(const std::string &conn, std::string &out, size_t max) {
  int f = fd(conn);
  if (f < 0) return fail("no connection " + conn);
  if (!waitReadable(f, stepTimeoutMs))
    return fail("timed out on " + conn + " after " + printable(out));
  char buffer[65536];
  ssize_t n = recv(f, buffer, max < sizeof buffer ? max : sizeof buffer, 0);
  if (n < 0) return fail("receive failed on " + conn);
  out.append(buffer, static_cast<size_t>(n));
  received_[conn].append(buffer, static_cast<size_t>(n));
  return n > 0 || fail("client closed " + conn + " after " + printable(out));
}

TcpPeer &TcpPeer::step(std::function<bool(TcpPeer &)> action) {
  steps_.push_back(std::move(action));
  return *this;
}

TcpPeer &TcpPeer::send(const std::string &bytes, const std::string &conn) {
  return step([bytes, conn](TcpPeer &p) {
    std::string text = p.expand(bytes);
    int f = p.fd(conn);
    size_t done = 0;
    while (done < text.size()) {
      ssize_t n = ::send(f, text.data() + done, text.size() - done, MSG_NOSIGNAL);
      if (n <= 0) return p.fail("send failed on " + conn);
      done += static_cast<size_t>(n);
    }
    return true;
  });
}

TcpPeer &TcpPeer::expect(const std::string &expected, const std::string &conn) {
  return step([expected, conn](TcpPeer &p) {
    std::string want = p.expand(expected);
    std::string got;
    while (got.size() < want.size())
      if (!p.readSome(conn, got, want.size() - got.size()))
        return p.fail(p.failure_ + "; expected " + printable(want));
    if (got != want)
      return p.fail("expected " + printable(want) + " got " + printable(got));
    return true;
  });
}

TcpPeer &TcpPeer::expectLine(const std::string &pattern,
                             std::vector<std::string> captures,
                             const std::string &conn) {
  return step([pattern, captures, conn](TcpPeer &p) {
    std::string line;
    while (line.empty() || line.back() != '\n')
      if (!p.readSome(conn, line, 1)) return false;
    std::smatch m;
    if (!std::regex_match(line, m, std::regex(pattern)))
      return p.fail("line " + printable(line) + " doesn't match " + pattern);
    for (size_t i = 0; i < captures.size() && i + 1 < m.size(); i++)
      p.vars_[captures[i]] = m[i + 1].str();
    return true;
  });
}

TcpPeer &TcpPeer::expectAllThenEof(const std::string &expected,
                                   const std::string &conn) {
  return step([expected, conn](TcpPeer &p) {
    int f = p.fd(conn);
    std::string got;
    for (;;) {
      if (!waitReadable(f, p.stepTimeoutMs))
        return p.fail("no end of " + conn + " after " +
                      std::to_string(got.size()) + " bytes");
      char buffer[65536];
      ssize_t n = recv(f, buffer, sizeof buffer, 0);
      if (n < 0) return p.fail("receive failed on " + conn);
      if (n == 0) break;
      got.append(buffer, static_cast<size_t>(n));
      p.received_[conn].append(buffer, static_cast<size_t>(n));
    }
    if (got != expected) {
      if (got.size() + expected.size() > 400)
        return p.fail("content of " + conn + " differs: " +
                      std::to_string(got.size()) + " bytes, expected " +
                      std::to_string(expected.size()));
      return p.fail("expected " + printable(expected) + " then end, got " +
                    printable(got));
    }
    return true;
  });
}

TcpPeer &TcpPeer::stall(int ms) {
  return step([ms](TcpPeer &) {
    std::this_thread::sleep_for(std::chrono::milliseconds(ms));
    return true;
  });
}

TcpPeer &TcpPeer::close(const std::string &conn) {
  return step([conn](TcpPeer &p) {
    auto it = p.fds_.find(conn);
    if (it == p.fds_.end()) return p.fail("no connection " + conn + " to close");
    ::close(it->second);
    p.fds_.erase(it);
    return true;
  });
}

TcpPeer &TcpPeer::listen(const std::string &name) {
  return step([name](TcpPeer &p) {
    uint16_t port = 0;
    int f = listenLoopback(&port);
    if (f < 0) return p.fail("can't listen for " + name);
    p.fds_[name] = f;
    p.vars_[name + ".port"] = std::to_string(port);
    p.vars_[name + ".p1"] = std::to_string(port >> 8);
    p.vars_[name + ".p2"] = std::to_string(port & 0xff);
    return true;
  });
}

TcpPeer &TcpPeer::accept(const std::string &listener, const std::string &conn) {
  return step([listener, conn](TcpPeer &p) {
    int l = p.fd(listener);
    if (l < 0 || !waitReadable(l, p.stepTimeoutMs))
      return p.fail("no connection came to " + listener);
    int f = ::accept(l, nullptr, nullptr);
    if (f < 0) return p.fail("accept failed on " + listener);
    p.fds_[conn] = f;
    return true;
  });
}

TcpPeer &TcpPeer::connect(const std::string &portVariable,
                          const std::string &conn) {
  return step([portVariable, conn](TcpPeer &p) {
    int f = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    a.sin_port = htons(static_cast<uint16_t>(std::stoi(p.var(portVariable))));
    if (::connect(f, reinterpret_cast<sockaddr *>(&a), sizeof a) != 0) {
      ::close(f);
      return p.fail("can't connect to the client's port " + p.var(portVariable));
    }
    p.fds_[conn] = f;
    return true;
  });
}

TcpPeer &TcpPeer::expectQuiet(int ms, const std::string &conn) {
  return step([ms, conn](TcpPeer &p) {
    int f = p.fd(conn);
    if (!waitReadable(f, ms)) return true;
    char c;
    ssize_t n = recv(f, &c, 1, MSG_PEEK);
    if (n == 0) return true;
    std::string got;
    p.readSome(conn, got, 4096);
    return p.fail("expected nothing on " + conn + ", got " + printable(got));
  });
}

void TcpPeer::start() {
  started_ = true;
  thread_ = std::thread([this] {
    if (listener_ < 0 || !waitReadable(listener_, stepTimeoutMs)) {
      fail("the client never connected");
      return;
    }
    fds_[kControl] = ::accept(listener_, nullptr, nullptr);
    for (auto &s : steps_)
      if (!s(*this)) return;
  });
}

bool TcpPeer::finish() {
  if (thread_.joinable()) thread_.join();
  started_ = false;
  return failure_.empty();
}

// ---- UDP ----

UdpPeer::UdpPeer(uint16_t port, uint32_t address) {
  fd_ = socket(AF_INET, SOCK_DGRAM, 0);
  sockaddr_in a{};
  a.sin_family = AF_INET;
  a.sin_addr.s_addr = address;
  a.sin_port = htons(port);
  if (bind(fd_, reinterpret_cast<sockaddr *>(&a), sizeof a) == 0) {
    socklen_t len = sizeof a;
    getsockname(fd_, reinterpret_cast<sockaddr *>(&a), &len);
    port_ = ntohs(a.sin_port);
  }
}

UdpPeer::~UdpPeer() {
  finish();
  if (fd_ >= 0) ::close(fd_);
}

UdpPeer &UdpPeer::expect(const std::string &expected) {
  steps_.push_back([this, expected] {
    if (!waitReadable(fd_, stepTimeoutMs))
      return failure_ = "no datagram came", false;
    char buffer[65536];
    sockaddr_in from{};
    socklen_t len = sizeof from;
    ssize_t n = recvfrom(fd_, buffer, sizeof buffer, 0,
                         reinterpret_cast<sockaddr *>(&from), &len);
    if (n < 0) return failure_ = "receive failed", false;
    std::string got(buffer, static_cast<size_t>(n));
    received_.push_back(got);
    lastAddress_ = from.sin_addr.s_addr;
    lastPort_ = ntohs(from.sin_port);
    if (got != expected)
      return failure_ = "expected " + printable(expected) + " got " +
                        printable(got),
             false;
    return true;
  });
  return *this;
}

UdpPeer &UdpPeer::reply(const std::string &bytes) {
  steps_.push_back([this, bytes] {
    sockaddr_in to{};
    to.sin_family = AF_INET;
    to.sin_addr.s_addr = lastAddress_;
    to.sin_port = htons(lastPort_);
    if (sendto(fd_, bytes.data(), bytes.size(), 0,
               reinterpret_cast<sockaddr *>(&to), sizeof to) !=
        static_cast<ssize_t>(bytes.size()))
      return failure_ = "send failed", false;
    return true;
  });
  return *this;
}

UdpPeer &UdpPeer::stall(int ms) {
  steps_.push_back([ms] {
    std::this_thread::sleep_for(std::chrono::milliseconds(ms));
    return true;
  });
  return *this;
}

void UdpPeer::start() {
  started_ = true;
  thread_ = std::thread([this] {
    for (auto &s : steps_)
      if (!s()) return;
  });
}

bool UdpPeer::finish() {
  if (thread_.joinable()) thread_.join();
  started_ = false;
  return failure_.empty();
}

}  // namespace kt
