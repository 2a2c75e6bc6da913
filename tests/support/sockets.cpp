#include "sockets.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

namespace kt {

sockaddr_in loopbackAddress(uint16_t port) {
  sockaddr_in a{};
  a.sin_family = AF_INET;
  a.sin_port = htons(port);
  a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  return a;
}

int listenLoopback(int backlog, uint16_t *port) {
  int l = socket(AF_INET, SOCK_STREAM, 0), on = 1;
  setsockopt(l, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
  sockaddr_in a = loopbackAddress(*port);
  socklen_t len = sizeof a;
  if (bind(l, reinterpret_cast<sockaddr *>(&a), sizeof a) != 0 || listen(l, backlog) != 0 ||
      getsockname(l, reinterpret_cast<sockaddr *>(&a), &len) != 0) {
    close(l);
    return -1;
  }
  *port = ntohs(a.sin_port);
  return l;
}

bool tcpPair(int *client, int *server) {
  uint16_t port = 0;
  int l = listenLoopback(1, &port);
  *client = socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in a = loopbackAddress(port);
  bool ok = l >= 0 && connect(*client, reinterpret_cast<sockaddr *>(&a), sizeof a) == 0;
  *server = ok ? accept(l, nullptr, nullptr) : -1;
  close(l);
  return ok && *server >= 0;
}

uint16_t closedPort() {
  uint16_t port = 0;
  close(listenLoopback(1, &port));
  return port;
}

FullListener::FullListener() {
  listener_ = listenLoopback(0, &port_);
  // Connect without accepting until an attempt no longer completes: from
  // then on the system drops new connection requests to this port.
  for (int i = 0; listener_ >= 0 && i < 16 && !ok_; i++) {
    int s = socket(AF_INET, SOCK_STREAM, 0);
    fcntl(s, F_SETFL, O_NONBLOCK);
    sockaddr_in a = loopbackAddress(port_);
    connect(s, reinterpret_cast<sockaddr *>(&a), sizeof a);
    fillers_.push_back(s);
    pollfd p{s, POLLOUT, 0};
    ok_ = poll(&p, 1, 200) == 0;
  }
}

FullListener::~FullListener() {
  for (int s : fillers_) close(s);
  if (listener_ >= 0) close(listener_);
}

}  // namespace kt
