// The mail family's line transport: connect, close, send a string, read one
// line one byte at a time. Nothing is read ahead.

#include <netinet/in.h>
#include <string.h>
#include <sys/socket.h>

#include "kelnet.h"
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

kelResult kelMAILRecvOneLine(int32_t socket, char *buffer, uint32_t size) {
  // A buffer without room for one byte and its NUL can't hold a line.
  if (buffer == nullptr || size < 2) return KEL_MAIL_ERR_IO;
  uint32_t limit = size - 1, count = 0;
  for (;;) {
    int got = kelNETRecvTimeo(socket, buffer + count, 1, 0, KEL_MAIL_TIMEOUT_MS);
    if (got == KEL_NET_TIMEOUT) return KEL_MAIL_ERR_IO_TIMEOUT;
    if (got <= 0) return KEL_MAIL_ERR_IO;
    count++;
    if (count == limit) break;
    if (count >= 2 && buffer[count - 2] == '\r' && buffer[count - 1] == '\n') break;
  }
  buffer[count] = '\0';
  return KEL_OK;
}
