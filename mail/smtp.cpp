// The SMTP session: start (flag, POP3 login, lists, subject, connect,
// greeting, envelope, DATA, header block), end and abort, and the parser of
// the recipient lists.

#include <stdio.h>
#include <string.h>

#include "kel_status.h"
#include "kelnet.h"
#include "mail_internal.h"

namespace {

// The next item of a ";"-separated list: its length, and *next behind its
// ";" or at the end.
size_t nextItem(const char *text, const char **next) {
  size_t length = strcspn(text, ";");
  *next = text + length + (text[length] == ';' ? 1 : 0);
  return length;
}

bool onlySeparators(const char *text) { return text[strspn(text, ";")] == '\0'; }

}  // namespace

kelResult kelMAILParseAddressList(kelMAILAddress **list, int32_t *count,
                                  const char *text) {
  *count = 0;
  // The work buffer of the copy: an item must fit it with its NUL.
  char *work = static_cast<char *>(kelMAILAlloc(KEL_MAIL_ADDRESS_SIZE));
  if (work == nullptr) return KEL_MAIL_ERR_MEMORY;
  kelResult result = KEL_OK;
  int32_t items = 0;
  for (const char *p = text; *p != '\0';) {
    size_t length = nextItem(p, &p);
    // An address of more than 127 bytes fits no entry. It is refused rather
    // than cut, which could name someone else: the list then counts as one
    // without an address.
    if (length >= KEL_MAIL_ADDRESS_SIZE) result = KEL_MAIL_ERR_NO_RECIPIENT;
    if (length > 0) items++;
  }
  if (items == 0) result = KEL_MAIL_ERR_NO_RECIPIENT;
  if (result == KEL_OK) {
    *list = static_cast<kelMAILAddress *>(kelMAILAlloc(static_cast<uint32_t>(items) * KEL_MAIL_ADDRESS_SIZE));
    if (*list == nullptr) result = KEL_MAIL_ERR_MEMORY;
  }
  if (result == KEL_OK) {
    for (const char *p = text; *p != '\0';) {
      const char *item = p;
      size_t length = nextItem(p, &p);
      if (length == 0) continue;
      memcpy(work, item, length);
      work[length] = '\0';
      memcpy((*list)[*count], work, length + 1);
      (*count)++;
    }
  }
  kelMAILFree(work);
  return result;
}

kelResult kelMAILConnectSmtpServer(kelMAILSession *session) {
  char *server = static_cast<char *>(kelMAILAlloc(KEL_STATUS_SERVER_SIZE));
  if (server == nullptr) return KEL_MAIL_ERR_MEMORY;
  uint16_t port = 0;
  kelResult result = kelMAILReadText(KEL_STATUS_SMTP_SERVER, server, KEL_STATUS_SERVER_SIZE);
  if (result == KEL_OK) result = kelMAILReadStatus(KEL_STATUS_SMTP_PORT, &port);
  if (result == KEL_OK) result = kelMAILConnect(&session->socket, server, port);
  if (result == KEL_OK) result = kelMAILRecvOneLine(session->socket, session->lineIn, KEL_MAIL_LINE_SIZE);
  if (result == KEL_OK && session->lineIn[0] != '2') result = KEL_MAIL_ERR_REPLY;
  kelMAILFree(server);
  return result;
}

kelResult kelMAILSendEnvelope(kelMAILSession *session) {
  char *hello = static_cast<char *>(kelMAILAlloc(KEL_STATUS_HELO_NAME_SIZE));
  char *sender = hello ? static_cast<char *>(kelMAILAlloc(KEL_STATUS_MAIL_SENDER_SIZE)) : nullptr;
  kelResult result = sender ? KEL_OK : KEL_MAIL_ERR_MEMORY;
  uint8_t useEhlo = 0;
  if (result == KEL_OK) result = kelMAILReadText(KEL_STATUS_HELO_NAME, hello, KEL_STATUS_HELO_NAME_SIZE);
  if (result == KEL_OK) result = kelMAILReadText(KEL_STATUS_MAIL_SENDER, sender, KEL_STATUS_MAIL_SENDER_SIZE);
  if (result == KEL_OK) result = kelMAILReadStatus(KEL_STATUS_SMTP_USE_EHLO, &useEhlo);
  if (result == KEL_OK && useEhlo == 1) {
    result = kelMAILHelloWithAuth(session, hello);
  } else if (result == KEL_OK) {
    snprintf(session->lineOut, KEL_MAIL_LINE_SIZE, "HELO %s\r\n", hello);
    result = kelMAILSendCommand(session, '2');
  }
  if (result == KEL_OK) {
    snprintf(session->lineOut, KEL_MAIL_LINE_SIZE, "MAIL FROM:<%s>\r\n", sender);
    result = kelMAILSendCommand(session, '2');
  }
  const struct {
    kelMAILAddress *list;
    int32_t count;
  } lists[] = {{session->toList, session->toCount},
               {session->ccList, session->ccCount},
               {session->bccList, session->bccCount}};
  for (const auto &l : lists) {
    for (int32_t i = 0; result == KEL_OK && i < l.count; i++) {
      snprintf(session->lineOut, KEL_MAIL_LINE_SIZE, "RCPT TO:<%s>\r\n", l.list[i]);
      result = kelMAILSendCommand(session, '2');
    }
  }
  if (result == KEL_OK) {
    snprintf(session->lineOut, KEL_MAIL_LINE_SIZE, "DATA\r\n");
    result = kelMAILSendCommand(session, '3');
  }
  kelMAILFree(sender);
  kelMAILFree(hello);
  return result;
}

kelResult kelMAILStartSmtp(const kelMAILSmtpRequest *request,
                           kelMAILSession **sessionCell) {
  uint8_t enabled = 0;
  kelResult result = kelMAILReadStatus(KEL_STATUS_SMTP_ENABLED, &enabled);
  if (result == KEL_OK && enabled == 0) result = KEL_MAIL_ERR_DISABLED;
  if (result != KEL_OK) {
    *sessionCell = nullptr;
    return result;
  }
  kelNETIgnoreSignals();
  kelMAILSession *session = static_cast<kelMAILSession *>(kelMAILAlloc(sizeof(kelMAILSession)));
  *sessionCell = session;
  if (session == nullptr) return KEL_MAIL_ERR_MEMORY;

  // A missing record, To list or template reads as an empty one.
  const char *to = request && request->to ? request->to : "";
  const char *cc = request ? request->cc : nullptr;
  const char *bcc = request ? request->bcc : nullptr;
  const char *subject = request && request->subject ? request->subject : "";

  result = kelMAILInitSmtpSession(session);
  if (result == KEL_OK) result = kelMAILPopBeforeSmtp();
  if (result == KEL_OK) result = kelMAILParseAddressList(&session->toList, &session->toCount, to);
  // An empty Cc or Bcc list is no failure; one that names only an address
  // too long for an entry is.
  if (result == KEL_OK && cc != nullptr) {
    result = kelMAILParseAddressList(&session->ccList, &session->ccCount, cc);
    if (result == KEL_MAIL_ERR_NO_RECIPIENT && onlySeparators(cc)) result = KEL_OK;
  }
  if (result == KEL_OK && bcc != nullptr) {
    result = kelMAILParseAddressList(&session->bccList, &session->bccCount, bcc);
    if (result == KEL_MAIL_ERR_NO_RECIPIENT && onlySeparators(bcc)) result = KEL_OK;
  }
  if (result == KEL_OK) result = kelMAILEditStrings(session->subject, subject);
  if (result == KEL_OK) result = kelMAILConnectSmtpServer(session);
  if (result == KEL_OK) result = kelMAILSendEnvelope(session);
  if (result == KEL_OK) result = kelMAILSendHeaderBlock(session);

  kelMAILFreeSessionLists(session);
  session->toCount = session->ccCount = session->bccCount = 0;
  if (result != KEL_OK) kelMAILFreeSmtpSession(session);
  return result;
}

kelResult kelMAILEndSmtp(kelMAILSession *session) {
  if (session == nullptr) return KEL_MAIL_ERR_NO_PART;
  snprintf(session->lineOut, KEL_MAIL_LINE_SIZE, "\r\n--%s--\r\n", session->boundary);
  kelResult result = kelMAILSendData(session->socket, session->lineOut);
  if (result == KEL_OK) {
    snprintf(session->lineOut, KEL_MAIL_LINE_SIZE, "\r\n.\r\n");
    result = kelMAILSendCommand(session, '2');
  }
  if (result == KEL_OK) {
    snprintf(session->lineOut, KEL_MAIL_LINE_SIZE, "QUIT\r\n");
    result = kelMAILSendCommand(session, '2');
  }
  kelMAILFreeSmtpSession(session);
  return result;
}

kelResult kelMAILAbortEndSmtp(kelMAILSession *session) {
  kelMAILFreeSmtpSession(session);
  return KEL_OK;
}
