// What every fuzz target shares: the server's bytes waiting behind a socket
// pair, and the checks that a run gave back every block and descriptor.
#pragma once

#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include <initializer_list>

#include "kelhost.h"
#include "kelnet.h"

namespace kf {

// A result of the family whose codes begin with prefix (0x58A0 ...), or 0;
// codes at or below limit pass too (the SMB client's folded server errors).
inline kelResult defined(kelResult r, uint32_t prefix, kelResult limit = 0) {
  if (r > limit && r >> 16 != prefix) abort();
  return r;
}

// A connected pair: `client` has received the input (up to 64 kB) and then
// the end of the stream, or the input as one datagram, so that no read
// waits. The client's sends stay queued (up to 64 MB, or as much as the
// system allows if setting that takes a privilege), so that none waits.
// The client end belongs to the code under test: when the run ends, it must
// be closed and every block of the pool given back.
struct Feed {
  int client, server, before = dup(0);
  Feed(const uint8_t *data, size_t size, int type = SOCK_STREAM) {
    [[maybe_unused]] static int quiet = kelNETIgnoreSignals();
    int pair[2];
    if (close(before) != 0 || socketpair(AF_UNIX, type, 0, pair) != 0) abort();
    client = pair[0];
    server = pair[1];
    if (size > 65536) size = 65536;
    if (send(server, data, size, 0) != static_cast<ssize_t>(size)) abort();
    shutdown(server, SHUT_WR);
    int queue = 64 << 20;
    if (setsockopt(client, SOL_SOCKET, SO_SNDBUFFORCE, &queue, sizeof queue) != 0)
      setsockopt(client, SOL_SOCKET, SO_SNDBUF, &queue, sizeof queue);
  }
  ~Feed() {
    close(server);
    int lowest = dup(0);  // the lowest free descriptor, as before the run
    if (close(lowest) != 0 || lowest != before || kelHostPoolBlocksInUse() != 0) abort();
  }
};

}  // namespace kf
