// Command exchanges: transfer settings, directory change, PORT, PASV, DELE.

#include <stdio.h>
#include <string.h>

#include "ftp_internal.h"

namespace {

const kelFTPCReplyRow kSetting[] = {
    {200, KEL_OK},
    {421, KEL_FTPC_SERVICE_CLOSING},
    {500, KEL_FTPC_BAD_COMMAND},
    {501, KEL_FTPC_BAD_COMMAND},
    {504, KEL_FTPC_BAD_COMMAND},
    {530, KEL_FTPC_NOT_READY},
};

// 500 and 502 to CWD go on with XCWD.
const kelFTPCReplyRow kCwd[] = {
    {250, KEL_OK},
    {421, KEL_FTPC_SERVICE_CLOSING},
    {501, KEL_FTPC_BAD_COMMAND},
    {530, KEL_FTPC_NOT_READY},
    {550, KEL_FTPC_UNAVAILABLE},
};

const kelFTPCReplyRow kXcwd[] = {
    {250, KEL_OK},
    {421, KEL_FTPC_SERVICE_CLOSING},
    {500, KEL_FTPC_BAD_COMMAND},
    {501, KEL_FTPC_BAD_COMMAND},
    {502, KEL_FTPC_NOT_IMPLEMENTED},
    {530, KEL_FTPC_NOT_READY},
    {550, KEL_FTPC_UNAVAILABLE},
};

const kelFTPCReplyRow kPort[] = {
    {200, KEL_OK},
    {421, KEL_FTPC_SERVICE_CLOSING},
    {500, KEL_FTPC_BAD_COMMAND},
    {501, KEL_FTPC_BAD_COMMAND},
    {530, KEL_FTPC_NOT_READY},
};

// 227 is parsed by the caller.
const kelFTPCReplyRow kPasv[] = {
    {421, KEL_FTPC_SERVICE_CLOSING},
    {500, KEL_FTPC_BAD_COMMAND},
    {501, KEL_FTPC_BAD_COMMAND},
    {502, KEL_FTPC_NOT_IMPLEMENTED},
    {530, KEL_FTPC_NOT_READY},
};

const kelFTPCReplyRow kDele[] = {
    {250, KEL_OK},
    {421, KEL_FTPC_SERVICE_CLOSING},
    {450, KEL_FTPC_FILE_BUSY},
    {500, KEL_FTPC_BAD_COMMAND},
    {501, KEL_FTPC_BAD_COMMAND},
    {502, KEL_FTPC_NOT_IMPLEMENTED},
    {530, KEL_FTPC_NOT_READY},
    {550, KEL_FTPC_DELETE_FAILED},
};

struct SettingValue {
  int32_t value;
  const char *argument;
};

const SettingValue kTypes[] = {{KEL_FTPC_TYPE_ASCII, "A"}, {KEL_FTPC_TYPE_IMAGE, "I"}};
const SettingValue kStructures[] = {{KEL_FTPC_STRUCTURE_FILE, "F"}};
const SettingValue kModes[] = {{KEL_FTPC_MODE_STREAM, "S"}};

// TYPE, STRU and MODE: nothing goes out for the value last accepted; a
// request that fails leaves no remembered value.
template <size_t N>
kelResult setting(kelFTPCSession *session, int32_t *last, int value,
                  const char *word, const SettingValue (&values)[N]) {
  if (value == 0) return KEL_FTPC_BAD_COMMAND;
  if (value == *last) return KEL_OK;
  *last = 0;
  const char *argument = nullptr;
  for (const SettingValue &v : values)
    if (v.value == value) argument = v.argument;
  if (argument == nullptr) return KEL_FTPC_BAD_COMMAND;
  kelResult r = kelFTPCExchangeMapped(session, word, argument, kSetting);
  if (r == KEL_OK) *last = value;
  return r;
}

bool isDigit(char c) { return c >= '0' && c <= '9'; }

}  // namespace

extern "C" {

kelResult kelFTPCCommandReplyTYPE(kelFTPCSession *session, int type) {
  return setting(session, &session->lastType, type, "TYPE", kTypes);
}

kelResult kelFTPCCommandReplySTRU(kelFTPCSession *session, int structure) {
  return setting(session, &session->lastStructure, structure, "STRU", kStructures);
}

kelResult kelFTPCCommandReplyMODE(kelFTPCSession *session, int mode) {
  return setting(session, &session->lastMode, mode, "MODE", kModes);
}

kelResult kelFTPCCommandReplyXCWD(kelFTPCSession *session,
                                  const char *directory) {
  return kelFTPCExchangeMapped(session, "XCWD", directory, kXcwd);
}

kelResult kelFTPCCommandReplyCWD(kelFTPCSession *session,
                                 const char *directory) {
  if (directory == nullptr) return KEL_FTPC_BAD_COMMAND;
  if (directory[0] == '\0' || strcmp(directory, ".") == 0) return KEL_OK;
  uint16_t code = 0;
  kelResult r = kelFTPCExchange(session, "CWD", directory, &code);
  if (r != KEL_OK) return r;
  if (code == 500 || code == 502)
    return kelFTPCCommandReplyXCWD(session, directory);
  return kelFTPCMapReply(kCwd, code);
}

kelResult kelFTPCCommandReplyPORT(kelFTPCSession *session, uint32_t address,
                                  uint16_t port) {
  const unsigned char *b = reinterpret_cast<const unsigned char *>(&address);
  char argument[32];
  snprintf(argument, sizeof argument, "%d,%d,%d,%d,%d,%d", b[0], b[1], b[2],
           b[3], port >> 8, port & 0xff);
  return kelFTPCExchangeMapped(session, "PORT", argument, kPort);
}

kelResult kelFTPCParsePasvReply(char *line, uint32_t *address,
                                uint16_t *port) {
  // From the end: the last run of digits and commas holds the numbers.
  size_t end = strlen(line);
  while (end > 0 && !isDigit(line[end - 1])) end--;
  line[end] = '\0';
  size_t start = end;
  while (start > 0 && (isDigit(line[start - 1]) || line[start - 1] == ','))
    start--;

  // As "%d,%d,%d,%d,%d,%d" would scan them, with values kept modulo 2^32.
  uint32_t numbers[6];
  int fields = 0;
  const char *at = line + start;
  while (fields < 6 && isDigit(*at)) {
    uint32_t n = 0;
    while (isDigit(*at)) n = n * 10 + static_cast<uint32_t>(*at++ - '0');
    numbers[fields++] = n;
    if (fields < 6) {
      if (*at != ',') break;
      at++;
    }
  }
  if (fields < 6) return KEL_FTPC_BAD_REPLY;

  unsigned char *bytes = reinterpret_cast<unsigned char *>(address);
  for (int i = 0; i < 4; i++) bytes[i] = static_cast<unsigned char>(numbers[i]);
  *port = static_cast<uint16_t>(numbers[4] * 256 + numbers[5]);
  return KEL_OK;
}

kelResult kelFTPCCommandReplyPASV(kelFTPCSession *session, uint32_t *address,
                                  uint16_t *port) {
  if (address == nullptr || port == nullptr) return KEL_FTPC_BAD_COMMAND;
  uint16_t code = 0;
  kelResult r = kelFTPCExchange(session, "PASV", nullptr, &code);
  if (r != KEL_OK) return r;
  if (code == 227) return kelFTPCParsePasvReply(session->line, address, port);
  return kelFTPCMapReply(kPasv, code);
}

kelResult kelFTPCCommandReplyDELE(kelFTPCSession *session, const char *path) {
  return kelFTPCExchangeMapped(session, "DELE", path, kDele);
}

}  // extern "C"
