// Small socket helpers for tests.
#pragma once

#include <netinet/in.h>
#include <stdint.h>

#include <vector>

namespace kt {

// IPv4 socket address of 127.0.0.1 at port (host order).
sockaddr_in loopbackAddress(uint16_t port);

// A TCP listener on 127.0.0.1 at *port (0: a free port, stored in *port);
// -1 if none.
int listenLoopback(int backlog, uint16_t *port);

// A connected pair of TCP sockets on loopback; false if it can't be made.
bool tcpPair(int *client, int *server);

// A port on 127.0.0.1 where nothing listens: connects are refused.
uint16_t closedPort();

// A listener whose accept queue is full, so that the system drops further
// connection attempts and a connect to it can only time out. Closes what it
// holds when destroyed.
class FullListener {
 public:
  FullListener();
  ~FullListener();
  uint16_t port() const { return port_; }
  bool ok() const { return ok_; }

 private:
  int listener_ = -1;
  std::vector<int> fillers_;
  uint16_t port_ = 0;
  bool ok_ = false;
};

}  // namespace kt
