// The control connection: commands out, reply lines in. A line read peeks at
// what has arrived and takes exactly the line's bytes, so that nothing past
// a reply is ever taken from the socket.

#include <string.h>

#include "ftp_internal.h"
#include "kelnet.h"
#include "net_internal.h"

kelResult kelFTPCMapReply(const kelFTPCReplyRow *rows, size_t count,
                          uint16_t code) {
  for (size_t i = 0; i < count; i++)
    if (rows[i].code == code) return rows[i].result;
  return KEL_FTPC_BAD_REPLY;
}

extern "C" {

kelResult kelFTPCSendCommand(kelFTPCSession *session, const char *word,
                             const char *argument) {
  if (session == nullptr) return KEL_FTPC_BAD_SESSION;
  size_t wordLength = strlen(word);
  size_t argumentLength = argument ? strlen(argument) : 0;
  size_t length = wordLength + (argument ? 1 + argumentLength : 0) + 2;
  // A command that can't fit the line buffer is refused before anything
  // goes out; the connection stays as it is.
  if (length >= session->lineSize) return KEL_FTPC_BAD_COMMAND;
  char *line = session->line;
  memcpy(line, word, wordLength);
  size_t at = wordLength;
  if (argument) {
    line[at++] = ' ';
    memcpy(line + at, argument, argumentLength);
    at += argumentLength;
  }
  memcpy(line + at, "\r\n", 3);

  int sent = kelNETSendTimeo(session->controlSocket, line,
                             static_cast<uint32_t>(length), 0,
                             session->timeoutMs);
  kelResult r = KEL_OK;
  if (sent == KEL_NET_TIMEOUT)
    r = KEL_FTPC_IO_TIMEOUT;
  else if (sent != static_cast<int>(length))
    r = KEL_FTPC_IO_FAILED;
  if (r != KEL_OK) kelFTPCProtoAbortConnect(session);
  return r;
}

// What a line read looks at per wait; the line buffer receives only the
// bytes that the line takes.
enum { KEL_FTPC_PEEK_WINDOW = 512 };

kelResult kelFTPCReadLine(kelFTPCSession *session) {
  char *line = session->line;
  const uint32_t size = session->lineSize;
  uint32_t at = 0;
  char window[KEL_FTPC_PEEK_WINDOW];
  for (;;) {
    // Look at what has arrived, no more than the span leaves, and take up to
    // and with the first LF in it, or all of it.
    uint32_t room = size - at;
    if (room > sizeof window) room = sizeof window;
    int seen = kelNETPeekTimeo(session->controlSocket, window, room,
                               session->timeoutMs);
    if (seen == KEL_NET_ERROR || seen == KEL_NET_TIMEOUT) {
      kelFTPCProtoAbortConnect(session);
      return seen == KEL_NET_TIMEOUT ? KEL_FTPC_IO_TIMEOUT : KEL_FTPC_IO_FAILED;
    }
    if (seen <= 0) return KEL_FTPC_IO_FAILED;  // the peer closed
    const void *lf = memchr(window, '\n', static_cast<size_t>(seen));
    uint32_t take = lf ? static_cast<uint32_t>(static_cast<const char *>(lf) -
                                               window) + 1
                       : static_cast<uint32_t>(seen);
    int got = kelNETTake(session->controlSocket, line + at, take);
    if (got == KEL_NET_ERROR) {
      kelFTPCProtoAbortConnect(session);
      return KEL_FTPC_IO_FAILED;
    }
    if (got <= 0) return KEL_FTPC_IO_FAILED;
    at += static_cast<uint32_t>(got);
    if (lf && static_cast<uint32_t>(got) == take) {
      at--;  // the LF
      if (at != 0 && line[at - 1] == '\r')
        line[at - 1] = '\0';
      else
        line[at] = '\0';
      return KEL_OK;
    }
    // A long line keeps its first half for good; the rest runs through
    // the upper half again and again.
    if (at == size) at = size / 2;
  }
}

// A reply ends with a line that repeats the first line's three leading
// bytes followed by a space.
static bool endsReply(const char *line, const char first[4]) {
  return strnlen(line, 4) == 4 && memcmp(line, first, 3) == 0 &&
         line[3] == ' ';
}

// The reply code from the first four bytes of the first line; a line that
// doesn't start with a number gives 0, which no reply table knows.
static uint16_t replyCode(const char first[4]) {
  unsigned value = 0;
  int i = 0;
  bool negative = false;
  while (i < 4 && (first[i] == ' ' || (first[i] >= '\t' && first[i] <= '\r'))) i++;
  if (i < 4 && (first[i] == '-' || first[i] == '+')) negative = first[i++] == '-';
  while (i < 4 && first[i] >= '0' && first[i] <= '9')
    value = value * 10 + static_cast<unsigned>(first[i++] - '0');
  return static_cast<uint16_t>(negative ? 0u - value : value);
}

kelResult kelFTPCReceiveResponse(kelFTPCSession *session, uint16_t *code) {
  if (session == nullptr) return KEL_FTPC_BAD_SESSION;
  if (kelFTPCReadLine(session) != KEL_OK) return KEL_FTPC_BAD_REPLY;
  char first[4];
  memcpy(first, session->line, sizeof first);
  while (!endsReply(session->line, first)) {
    kelResult r = kelFTPCReadLine(session);
    if (r != KEL_OK) return r;
  }
  if (code) *code = replyCode(first);
  return KEL_OK;
}

kelResult kelFTPCExchange(kelFTPCSession *session, const char *word,
                          const char *argument, uint16_t *code) {
  kelResult r = kelFTPCSendCommand(session, word, argument);
  if (r != KEL_OK) return r;
  return kelFTPCReceiveResponse(session, code);
}

}  // extern "C"
