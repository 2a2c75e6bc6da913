// Timed socket layer: plain forwards under the library's names, and a wait
// in select() in front of every call that could block.

#include "kelnet.h"

#include <arpa/inet.h>
#include <errno.h>
#include <netdb.h>
#include <signal.h>
#include <string.h>
#include <sys/time.h>
#include <unistd.h>

#include "net_internal.h"
#include "kel_os.h"

extern "C" {

int kelNETSocket(int domain, int type, int protocol) {
  return socket(domain, type, protocol);
}

int kelNETClose(int handle) { return close(handle); }

int kelNETShutdown(int handle) { return shutdown(handle, SHUT_RDWR); }

int kelNETSelect(int count, fd_set *readSet, fd_set *writeSet,
                 fd_set *exceptSet, int32_t timeoutMs) {
  struct timeval limit;
  struct timeval *limitPointer = nullptr;
  if (timeoutMs != -1) {
    // Other negative values have no use; they look once, like 0.
    int32_t ms = timeoutMs < 0 ? 0 : timeoutMs;
    limit.tv_sec = ms / 1000;
    limit.tv_usec = (ms % 1000) * 1000;
    limitPointer = &limit;
  }
  int ready = select(count, readSet, writeSet, exceptSet, limitPointer);
  if (ready == 0) return KEL_NET_TIMEOUT;
  if (ready < 0) return KEL_NET_ERROR;
  return ready;
}

int kelNETHandleFits(int handle) { return handle >= 0 && handle < FD_SETSIZE; }

static int waitOne(int handle, bool forWrite, int32_t timeoutMs) {
  if (!kelNETHandleFits(handle)) return KEL_NET_ERROR;
  fd_set set;
  FD_ZERO(&set);
  FD_SET(handle, &set);
  return kelNETSelect(handle + 1, forWrite ? nullptr : &set,
                      forWrite ? &set : nullptr, nullptr, timeoutMs);
}

int kelNETWaitRead(int handle, int32_t timeoutMs) {
  return waitOne(handle, false, timeoutMs);
}

int kelNETWaitWrite(int handle, int32_t timeoutMs) {
  return waitOne(handle, true, timeoutMs);
}

int kelNETConnectTimeo(int *handle, const struct sockaddr *address,
                       socklen_t addressLength, int32_t timeoutMs) {
  int r = orvOSWConnectTimedWait(handle, address, addressLength, timeoutMs);
  if (r == -1) return *handle == -1 ? KEL_NET_TIMEOUT : KEL_NET_ERROR;
  return r;
}

int kelNETSendTimeo(int handle, const void *buffer, uint32_t length, int flags,
                    int32_t timeoutMs) {
  int ready = kelNETWaitWrite(handle, timeoutMs);
  if (ready < 0) return ready;
  return static_cast<int>(send(handle, buffer, length, flags));
}

int kelNETRecvTimeo(int handle, void *buffer, uint32_t length, int flags,
                    int32_t timeoutMs) {
  int ready = kelNETWaitRead(handle, timeoutMs);
  if (ready < 0) return ready;
  return static_cast<int>(recv(handle, buffer, length, flags));
}

int kelNETPeekTimeo(int handle, void *buffer, uint32_t length,
                    int32_t timeoutMs) {
  // What has already arrived needs no wait: one look without blocking
  // first, and the timed wait only when nothing is there. A handle that
  // has no place in a wait set is refused as the wait refuses it.
  if (!kelNETHandleFits(handle)) return KEL_NET_ERROR;
  ssize_t seen = recv(handle, buffer, length, MSG_PEEK | MSG_DONTWAIT);
  if (seen >= 0) return static_cast<int>(seen);
  if (errno != EAGAIN && errno != EWOULDBLOCK) return KEL_NET_ERROR;
  return kelNETRecvTimeo(handle, buffer, length, MSG_PEEK, timeoutMs);
}

int kelNETTake(int handle, void *buffer, uint32_t length) {
  // The bytes are already there, so no wait: a plain receive.
  int got = static_cast<int>(recv(handle, buffer, length, 0));
  return got < 0 ? KEL_NET_ERROR : got;
}

int kelNETSendToTimeo(int handle, const void *buffer, uint32_t length,
                      int flags, const struct sockaddr *address,
                      socklen_t addressLength, int32_t timeoutMs) {
  int ready = kelNETWaitWrite(handle, timeoutMs);
  if (ready < 0) return ready;
  return static_cast<int>(
      sendto(handle, buffer, length, flags, address, addressLength));
}

int kelNETRecvFromTimeo(int handle, void *buffer, uint32_t length, int flags,
                        struct sockaddr *address, socklen_t *addressLength,
                        int32_t timeoutMs) {
  int ready = kelNETWaitRead(handle, timeoutMs);
  if (ready < 0) return ready;
  return static_cast<int>(
      recvfrom(handle, buffer, length, flags, address, addressLength));
}

int kelNETBind(int handle, const struct sockaddr *address,
               socklen_t addressLength) {
  return bind(handle, address, addressLength);
}

int kelNETListen(int handle, int backlog) { return listen(handle, backlog); }

int kelNETAccept(int handle, struct sockaddr *address,
                 socklen_t *addressLength) {
  return accept(handle, address, addressLength);
}

int kelNETGetIpByName(const char *name, uint32_t *address) {
  *address = 0xffffffffu;
  *address = inet_addr(name);
  if (*address != 0xffffffffu) return 0;
  struct hostent *entry = gethostbyname(name);
  if (entry == nullptr || entry->h_addr_list == nullptr ||
      entry->h_addr_list[0] == nullptr)
    return -1;
  memcpy(address, entry->h_addr_list[0], 4);
  return 0;
}

int kelNETGetSockOpt(int handle, int level, int option, void *value,
                     socklen_t *valueLength) {
  return getsockopt(handle, level, option, value, valueLength);
}

int kelNETSetSockOpt(int handle, int level, int option, const void *value,
                     socklen_t valueLength) {
  return setsockopt(handle, level, option, value, valueLength);
}

void kelNETSignalNoop(int) {}

kelNETSignalHandler kelNETSetSignal(int number, kelNETSignalHandler handler) {
  return signal(number, handler);
}

int kelNETIgnoreSignals(void) {
  kelNETSetSignal(SIGPIPE, kelNETSignalNoop);
  return 0;
}

}  // extern "C"
