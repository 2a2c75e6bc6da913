// Login and logout exchanges and the working directory.

#include <string.h>

#include "ftp_internal.h"

namespace {

const kelFTPCReplyRow kUser[] = {
    {230, KEL_OK},
    {331, KEL_FTPC_NEED_PASSWORD},
    {332, KEL_FTPC_NEED_ACCOUNT},
    {421, KEL_FTPC_SERVICE_CLOSING},
    {500, KEL_FTPC_BAD_COMMAND},
    {501, KEL_FTPC_BAD_COMMAND},
    {530, KEL_FTPC_BAD_LOGIN},
};

const kelFTPCReplyRow kPass[] = {
    {202, KEL_OK},
    {230, KEL_OK},
    {332, KEL_FTPC_NEED_ACCOUNT},
    {421, KEL_FTPC_SERVICE_CLOSING},
    {500, KEL_FTPC_BAD_COMMAND},
    {501, KEL_FTPC_BAD_COMMAND},
    {503, KEL_FTPC_BAD_COMMAND},
    {530, KEL_FTPC_BAD_LOGIN},
};

const kelFTPCReplyRow kQuit[] = {
    {221, KEL_OK},
    {500, KEL_FTPC_BAD_COMMAND},
};

// 257 is parsed by the caller; 500 and 502 to PWD go on with XPWD.
const kelFTPCReplyRow kPwd[] = {
    {421, KEL_FTPC_SERVICE_CLOSING},
    {501, KEL_FTPC_BAD_COMMAND},
    {550, KEL_FTPC_UNAVAILABLE},
};

const kelFTPCReplyRow kXpwd[] = {
    {421, KEL_FTPC_SERVICE_CLOSING},
    {500, KEL_FTPC_BAD_COMMAND},
    {501, KEL_FTPC_BAD_COMMAND},
    {502, KEL_FTPC_NOT_IMPLEMENTED},
    {550, KEL_FTPC_UNAVAILABLE},
};

// The working directory from a 257 reply, else what table makes of code.
template <size_t N>
kelResult directoryReply(kelFTPCSession *session, uint16_t code,
                                char *buffer, uint32_t length,
                                const kelFTPCReplyRow (&table)[N]) {
  if (code == 257) return kelFTPCParseQuotedPath(session->line, buffer, length);
  return kelFTPCMapReply(table, code);
}

}  // namespace

extern "C" {

kelResult kelFTPCCommandReplyUSER(kelFTPCSession *session, const char *user) {
  return kelFTPCExchangeMapped(session, "USER", user, kUser);
}

kelResult kelFTPCCommandReplyPASS(kelFTPCSession *session,
                                  const char *password) {
  return kelFTPCExchangeMapped(session, "PASS", password, kPass);
}

kelResult kelFTPCCommandReplyQUIT(kelFTPCSession *session) {
  return kelFTPCExchangeMapped(session, "QUIT", nullptr, kQuit);
}

kelResult kelFTPCParseQuotedPath(char *text, char *buffer, uint32_t length) {
  char *open = strchr(text, '"');
  char *close = open ? strchr(open + 1, '"') : nullptr;
  if (close == nullptr) return KEL_FTPC_BAD_REPLY;
  *close = '\0';
  strncpy(buffer, open + 1, length);
  return KEL_OK;
}

kelResult kelFTPCDerivePathSeparator(const char *path, char *separator) {
  // The order of the search decides, not the position in the path.
  static const char kCandidates[] = {'/', '\\', '.'};
  for (char candidate : kCandidates) {
    if (strchr(path, candidate) != nullptr) {
      *separator = candidate;
      return KEL_OK;
    }
  }
  return KEL_FTPC_BAD_REPLY;
}

kelResult kelFTPCCommandReplyXPWD(kelFTPCSession *session, char *buffer,
                                  uint32_t length) {
  if (buffer == nullptr) return KEL_FTPC_BAD_COMMAND;
  uint16_t code = 0;
  kelResult r = kelFTPCExchange(session, "XPWD", nullptr, &code);
  if (r != KEL_OK) return r;
  return directoryReply(session, code, buffer, length, kXpwd);
}

kelResult kelFTPCCommandReplyPWD(kelFTPCSession *session, char *buffer,
                                 uint32_t length) {
  if (buffer == nullptr) return KEL_FTPC_BAD_COMMAND;
  uint16_t code = 0;
  kelResult r = kelFTPCExchange(session, "PWD", nullptr, &code);
  if (r != KEL_OK) return r;
  if (code == 500 || code == 502)
    return kelFTPCCommandReplyXPWD(session, buffer, length);
  return directoryReply(session, code, buffer, length, kPwd);
}

}  // extern "C"
