// What every fuzz target shares: the server's bytes waiting behind a socket
// pair, and the checks that a run gave back every block and descriptor.
#pragma once

#include <stdint.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <unistd.h>

#include "kelhost.h"
#include "kelnet.h"

namespace kf {

// The lowest free descriptor: the same after a run as before it unless the
// run left one open.
inline int lowestFree() {
  int fd = dup(0);
  close(fd);
  return fd;
}

// A result of the family whose codes begin with prefix (0x58A0 ...), or 0;
// codes at or below limit pass too (the SMB client's folded server errors).
inline kelResult defined(kelResult r, uint32_t prefix, kelResult limit = 0) {
  if (r > limit && r >> 16 != prefix) abort();
  return r;
}

// A connected pair: `client` has received all of the input and then the end
// of the stream (or one datagram), so that no read waits. The other end
// takes the client's sends until the run ends. The client end belongs to the
// code under test; the run must close it and free every block.
struct Feed {
  int client = -1, server = -1, before = lowestFree();
  Feed(const uint8_t *data, size_t size, int type = SOCK_STREAM) {
    static const int quiet = kelNETIgnoreSignals();
    (void)quiet;
    int pair[2];
    if (socketpair(AF_UNIX, type, 0, pair) != 0) abort();
    client = pair[0];
    server = pair[1];
    // A datagram goes whole; a stream takes what the pair holds (the
    // targets refuse inputs above 64 kB).
    for (size_t at = 0; at < size || type == SOCK_DGRAM;) {
      ssize_t n = send(server, data + at, size - at, 0);
      if (n < 0) abort();
      if (type == SOCK_DGRAM) break;
      at += static_cast<size_t>(n);
    }
    shutdown(server, SHUT_WR);
  }
  ~Feed() {
    close(server);
    if (kelHostPoolBlocksInUse() != 0 || lowestFree() != before) abort();
  }
};

}  // namespace kf
