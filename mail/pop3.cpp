// The POP3 client: no session object; the caller holds the socket, and the
// two exported buffers hold the last reply and the last command.

#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "kel_status.h"
#include "mail_internal.h"

char kelMAILRecvBuffer[KEL_MAIL_POP3_BUFFER_SIZE];
char kelMAILSendBuffer[KEL_MAIL_POP3_BUFFER_SIZE];

namespace {

constexpr uint32_t kWorkSize = 256;

// A reply must begin with "+OK"; nothing behind it is looked at.
kelResult readReply(int32_t socket) {
  kelResult r = kelMAILRecvOneLine(socket, kelMAILRecvBuffer, KEL_MAIL_POP3_BUFFER_SIZE);
  if (r != KEL_OK) return r;
  return strncmp(kelMAILRecvBuffer, "+OK", 3) == 0 ? KEL_OK : KEL_MAIL_ERR_REPLY;
}

// Composes a command in the send buffer, sends it and tests the reply.
template <typename... Args>
kelResult command(int32_t socket, const char *format, Args... args) {
  snprintf(kelMAILSendBuffer, KEL_MAIL_POP3_BUFFER_SIZE, format, args...);
  kelResult r = kelMAILSendData(socket, kelMAILSendBuffer);
  return r != KEL_OK ? r : readReply(socket);
}

// A decimal number as strtol reads it, held to 32 bits so that every host
// reads the same value.
long number(const char *text) {
  long long v = strtoll(text, nullptr, 10);
  if (v > INT32_MAX) return INT32_MAX;
  if (v < INT32_MIN) return INT32_MIN;
  return static_cast<long>(v);
}

kelResult firstNumber(int32_t socket, const char *verb, int32_t *out) {
  kelResult r = command(socket, "%s\r\n", verb);
  if (r != KEL_OK) return r;
  *out = static_cast<int32_t>(number(kelMAILRecvBuffer + 4));
  return KEL_OK;
}

}  // namespace

kelResult kelMAILConnectPop3Server(int32_t *socketCell) {
  kelMAILBlock name(kelMAILAlloc(KEL_STATUS_SERVER_SIZE));
  if (name.get() == nullptr) return KEL_MAIL_ERR_MEMORY;
  uint16_t port = 0;
  kelResult r = kelMAILReadStatus(KEL_STATUS_POP3_SERVER, name.get());
  if (r == KEL_OK) r = kelMAILReadStatus(KEL_STATUS_POP3_PORT, &port);
  if (r == KEL_OK) r = kelMAILConnect(socketCell, name.get(), port);
  return r != KEL_OK ? r : readReply(*socketCell);
}

kelResult kelMAILLoginPop3Server(int32_t socket) {
  kelMAILBlock user(kelMAILAlloc(KEL_STATUS_CREDENTIAL_SIZE));
  if (user.get() == nullptr) return KEL_MAIL_ERR_MEMORY;
  kelMAILBlock password(kelMAILAlloc(KEL_STATUS_CREDENTIAL_SIZE));
  if (password.get() == nullptr) return KEL_MAIL_ERR_MEMORY;
  kelResult r = kelMAILReadStatus(KEL_STATUS_POP3_USER, user.get());
  if (r == KEL_OK) r = kelMAILReadStatus(KEL_STATUS_POP3_PASSWORD, password.get());
  if (r == KEL_OK) r = command(socket, "USER %s\r\n", user.get());
  if (r == KEL_OK) r = command(socket, "PASS %s\r\n", password.get());
  return r;
}

kelResult kelMAILLoginPop3ServerByAPOP(int32_t socket) {
  kelMAILBlock user(kelMAILAlloc(KEL_STATUS_CREDENTIAL_SIZE));
  if (user.get() == nullptr) return KEL_MAIL_ERR_MEMORY;
  kelMAILBlock secret(kelMAILAlloc(KEL_STATUS_CREDENTIAL_SIZE));
  if (secret.get() == nullptr) return KEL_MAIL_ERR_MEMORY;
  kelMAILBlock work(kelMAILAlloc(kWorkSize));
  if (work.get() == nullptr) return KEL_MAIL_ERR_MEMORY;
  kelResult r = kelMAILReadStatus(KEL_STATUS_POP3_USER, user.get());
  if (r == KEL_OK) r = kelMAILReadStatus(KEL_STATUS_POP3_PASSWORD, secret.get());
  if (r != KEL_OK) return r;
  // The greeting still in the receive buffer: the first "<" and the first
  // ">" behind it bound the time stamp.
  size_t length = strnlen(kelMAILRecvBuffer, KEL_MAIL_POP3_BUFFER_SIZE - 1);
  const char *open = static_cast<const char *>(memchr(kelMAILRecvBuffer, '<', length));
  if (open == nullptr) return KEL_MAIL_ERR_UNSUPPORTED;
  const char *close = static_cast<const char *>(
      memchr(open, '>', length - static_cast<size_t>(open - kelMAILRecvBuffer)));
  if (close == nullptr) return KEL_MAIL_ERR_UNSUPPORTED;
  size_t stamp = static_cast<size_t>(close - open) + 1;
  // Time stamp and secret must fit the 256-byte work text with its NUL; a
  // longer pair is refused before anything is sent.
  size_t secretLength = strlen(secret.get());
  if (stamp + secretLength > kWorkSize - 1) return KEL_MAIL_ERR_UNSUPPORTED;
  memcpy(work.get(), open, stamp);
  memcpy(work.get() + stamp, secret.get(), secretLength + 1);
  kelMAILMD5Context context;
  unsigned char digest[16];
  char hex[33];
  kelMAILInitializeMD5(&context);
  kelMAILUpdateMD5(&context, work.get(), static_cast<uint32_t>(stamp + secretLength));
  kelMAILFinishMD5(digest, &context);
  kelMAILDigestText(digest, hex);
  return command(socket, "APOP %s %s\r\n", user.get(), hex);
}

kelResult kelMAILGetMailCount(int32_t socket, int32_t *count) {
  return firstNumber(socket, "STAT", count);
}

kelResult kelMAILGetLastMail(int32_t socket, int32_t *last) {
  return firstNumber(socket, "LAST", last);
}

kelResult kelMAILGetMailSize(int32_t socket, int32_t wanted, uint16_t *size) {
  kelResult r = command(socket, "%s\r\n", "LIST");
  if (r != KEL_OK) return r;
  long found = 0;
  // The listing is always read to its end, the line that begins with ".".
  for (;;) {
    r = kelMAILRecvOneLine(socket, kelMAILRecvBuffer, KEL_MAIL_POP3_BUFFER_SIZE);
    if (r != KEL_OK) return r;
    if (kelMAILRecvBuffer[0] == '.') break;
    if (number(kelMAILRecvBuffer) != wanted) continue;
    // The size stands behind the first blank of the buffer; a later line of
    // the same number wins.
    const char *blank =
        static_cast<const char *>(memchr(kelMAILRecvBuffer, ' ', KEL_MAIL_POP3_BUFFER_SIZE));
    if (blank != nullptr) found = number(blank + 1);
  }
  // An unlisted message and a size below 1 alike have no size.
  if (found <= 0) return KEL_MAIL_ERR_UNSUPPORTED;
  *size = static_cast<uint16_t>((found + 1023) / 1024);
  return KEL_OK;
}

kelResult kelMAILStartMailData(int32_t socket, int32_t number) {
  return command(socket, "RETR %ld\r\n", static_cast<long>(number));
}

kelResult kelMAILRecvOneLinePop3(int32_t socket, char *buffer, uint32_t size) {
  return kelMAILRecvOneLine(socket, buffer, size);
}

kelResult kelMAILDeleteMail(int32_t socket, int32_t number) {
  return command(socket, "DELE %ld\r\n", static_cast<long>(number));
}

kelResult kelMAILDisconnectPop3Server(int32_t socket) {
  kelResult r = command(socket, "%s\r\n", "QUIT");
  if (r == KEL_OK) kelMAILCloseSocket(socket);
  return r;
}

kelResult kelMAILPopBeforeSmtp(void) {
  int32_t cell = -1;
  unsigned char flag = 0, apop = 0;
  kelResult r = kelMAILReadStatus(KEL_STATUS_POP_BEFORE_SMTP, &flag);
  if (r != KEL_OK || flag != 1) return r;
  if ((r = kelMAILReadStatus(KEL_STATUS_POP3_USE_APOP, &apop)) != KEL_OK) return r;
  r = kelMAILConnectPop3Server(&cell);
  if (r == KEL_OK) r = apop != 0 ? kelMAILLoginPop3ServerByAPOP(cell) : kelMAILLoginPop3Server(cell);
  // This step holds the only handle: when QUIT fails too, it closes the
  // socket itself rather than leave it open.
  if (cell != -1 && kelMAILDisconnectPop3Server(cell) != KEL_OK) kelMAILCloseSocket(cell);
  return r;
}
