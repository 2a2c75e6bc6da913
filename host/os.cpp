// Timed connect, case-insensitive compare and local time of the
// operating-system services.

#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <strings.h>
#include <sys/socket.h>
#include <unistd.h>

#include "../net/kel_os.h"

extern "C" {

int orvOSWConnectTimedWait(int *handle, const struct sockaddr *address,
                           socklen_t length, int32_t timeoutMs) {
  int fd = *handle;
  int flags = fcntl(fd, F_GETFL);
  if (flags < 0 || fcntl(fd, F_SETFL, flags | O_NONBLOCK) < 0) return -1;
  int result = 0;
  if (connect(fd, address, length) != 0) {
    if (errno != EINPROGRESS) {
      result = -1;
    } else {
      struct pollfd waitFor = {fd, POLLOUT, 0};
      int ready;
      do {
        ready = poll(&waitFor, 1, timeoutMs < 0 ? -1 : timeoutMs);
      } while (ready < 0 && errno == EINTR);
      if (ready == 0) {
        close(fd);
        *handle = -1;
        return -1;
      }
      int error = 0;
      socklen_t errorLength = sizeof error;
      if (ready < 0 ||
          getsockopt(fd, SOL_SOCKET, SO_ERROR, &error, &errorLength) != 0 ||
          error != 0)
        result = -1;
    }
  }
  fcntl(fd, F_SETFL, flags);
  return result;
}

int orvCLBCompStrCaseN(const char *first, const char *second, uint32_t count) {
  return strncasecmp(first, second, count);
}

int orvCLBLocalTime_r(const time_t *time, struct tm *result) {
  return localtime_r(time, result) ? 0 : -1;
}

}  // extern "C"
