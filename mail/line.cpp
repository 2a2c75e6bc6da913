// The mail family's line transport: connect, close, send a string, read one
// line. A line read peeks at what has arrived and takes exactly the line's
// bytes, so nothing is read ahead.

#include <netinet/in.h>
#include <string.h>
#include <sys/socket.h>

#include "kelnet.h"
#include "net_internal.h"
#include "mail_internal.h"

kelResult kelMAILConnect(int32_t *socketCell, const char *server,
                         uint16_t port) {
  uint32_t address = 0;
  if (kelNETGetIpByName(server, &address) < 0) return KEL_MAIL_ERR_HOST;
  *socketCell = kelNETSocket(AF_INET, SOCK_STREAM, 0);
  if (*socketCell < 0) return KEL_MAIL_ERR_SOCKET;
  struct sockaddr_in to;
  memset(&to, 0, sizeof to);
  to.sin_family = AF_INET;
  to.sin_port = htons(port);
  to.sin_addr.s_addr = address;
  int handle = *socketCell;
  int r = kelNETConnectTimeo(&handle, reinterpret_cast<const sockaddr *>(&to),
                             sizeof to, KEL_MAIL_TIMEOUT_MS);
  *socketCell = handle;
  if (r == KEL_NET_TIMEOUT) return KEL_MAIL_ERR_CONNECT_TIMEOUT;
  if (r == KEL_NET_ERROR) return KEL_MAIL_ERR_CONNECT;
  return KEL_OK;
}

void kelMAILCloseSocket(int32_t socket) {
  kelNETShutdown(socket);
  kelNETClose(socket);
}

kelResult kelMAILSendData(int32_t socket, const char *text) {
  uint32_t length = static_cast<uint32_t>(strlen(text));
  int sent = kelNETSendTimeo(socket, text, length, 0, KEL_MAIL_TIMEOUT_MS);
  if (sent == KEL_NET_TIMEOUT) return KEL_MAIL_ERR_IO_TIMEOUT;
  // A short send is a failed one: no caller can go on from the middle of a
  // string, and the rest would arrive out of step with the conversation.
  if (sent < 0 || static_cast<uint32_t>(sent) != length) return KEL_MAIL_ERR_IO;
  return KEL_OK;
}

// What a line read looks at per wait: a small window on the stack, so that
// the caller's buffer receives only the bytes that the line takes.
enum { KEL_MAIL_PEEK_WINDOW = 512 };

kelResult kelMAILRecvOneLine(int32_t socket, char *buffer, uint32_t size) {
  // A buffer without room for one byte and its NUL can't hold a line.
  if (buffer == nullptr || size < 2) return KEL_MAIL_ERR_IO;
  const uint32_t limit = size - 1;
  uint32_t count = 0;
  char window[KEL_MAIL_PEEK_WINDOW];
  for (;;) {
    // Look at what has arrived, no more than the limit leaves, and find the
    // line's end in it: the limit first, then CR LF (the CR may be the last
    // byte already stored).
    uint32_t room = limit - count;
    if (room > sizeof window) room = sizeof window;
    int seen = kelNETPeekTimeo(socket, window, room, KEL_MAIL_TIMEOUT_MS);
    if (seen == KEL_NET_TIMEOUT) return KEL_MAIL_ERR_IO_TIMEOUT;
    if (seen <= 0) return KEL_MAIL_ERR_IO;
    uint32_t take = 0;
    bool ends = false;
    char previous = count > 0 ? buffer[count - 1] : '\0';
    while (take < static_cast<uint32_t>(seen) && !ends) {
      char c = window[take++];
      ends = count + take == limit ||
             (c == '\n' && previous == '\r' && count + take >= 2);
      previous = c;
    }
    // Take exactly those bytes, straight into the caller's buffer.
    int got = kelNETTake(socket, buffer + count, take);
    if (got <= 0) return KEL_MAIL_ERR_IO;
    count += static_cast<uint32_t>(got);
    if (ends && static_cast<uint32_t>(got) == take) break;
  }
  buffer[count] = '\0';
  return KEL_OK;
}
