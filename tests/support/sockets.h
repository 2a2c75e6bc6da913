// Small socket helpers for tests (defined in peer.cpp).
#pragma once

#include <netinet/in.h>

namespace kt {

// IPv4 socket address of 127.0.0.1 at port (host order).
sockaddr_in loopbackAddress(uint16_t port);

// A port on 127.0.0.1 where nothing listens: connects are refused.
uint16_t closedPort();

// A port on 127.0.0.1 whose listener's accept queue is full, so that the
// system drops further connection requests and a connect there can only
// time out. Its sockets stay open until closeHeldSockets(); 0 if none.
uint16_t fullPort();
void closeHeldSockets();

}  // namespace kt
