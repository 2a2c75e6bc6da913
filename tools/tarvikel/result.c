/* Messages, and the one table of every result code of every family: its
 * name, what it means, and the exit code the command gives for it. */
#define _GNU_SOURCE
#include <stdarg.h>
#include <stdio.h>
#include <string.h>

#include "cmd.h"
#include "kelftpc.h"
#include "kelmail.h"
#include "kelsmbc.h"
#include "keltime.h"

int tk_verbose = 0;
const char *tk_command = "";

struct tk_code {
  kelResult code;
  const char *name;
  const char *meaning;
  int status;
};

#define ROW(code, meaning, status) {code, #code, meaning, status}
static const struct tk_code kCodes[] = {
    {KEL_OK, "KEL_OK", "success", TK_OK},
    /* FTP */
    ROW(KEL_FTPC_BAD_SERVER, "server name empty, over 63 bytes or not resolved", TK_NETWORK),
    ROW(KEL_FTPC_BAD_LOGIN, "login refused (530), or a user name or password over 63 bytes", TK_REFUSED),
    ROW(KEL_FTPC_BAD_FILE_NAME, "file name refused by the server (550, 553) or too long", TK_REFUSED),
    ROW(KEL_FTPC_CONNECT_FAILED, "no connection to port 21, or a greeting other than 220", TK_NETWORK),
    ROW(KEL_FTPC_CONNECT_TIMEOUT, "no connection within 30 s", TK_NETWORK),
    ROW(KEL_FTPC_IO_FAILED, "send or receive failed: the connections are gone", TK_NETWORK),
    ROW(KEL_FTPC_IO_TIMEOUT, "the server was silent for 30 s", TK_NETWORK),
    ROW(KEL_FTPC_NOT_READY, "not logged in, or no transfer open (call order)", TK_FAILED),
    ROW(KEL_FTPC_ALREADY_ACTIVE, "already connected, or a transfer already open", TK_FAILED),
    ROW(KEL_FTPC_WRONG_TRANSFER, "the open transfer goes the other way", TK_FAILED),
    ROW(KEL_FTPC_NOT_CLOSED, "a transfer is still open", TK_FAILED),
    ROW(KEL_FTPC_NO_SOCKET, "no socket could be made", TK_FAILED),
    ROW(KEL_FTPC_BAD_SESSION, "no session, or no memory for one", TK_FAILED),
    ROW(KEL_FTPC_NEED_ACCOUNT, "the server wants an account (332, 532)", TK_REFUSED),
    ROW(KEL_FTPC_NOT_IMPLEMENTED, "command not implemented by the server (502)", TK_REFUSED),
    ROW(KEL_FTPC_BAD_REPLY, "a reply not understood or not expected here", TK_REFUSED),
    ROW(KEL_FTPC_SERVICE_CLOSING, "service not available, closing (421)", TK_REFUSED),
    ROW(KEL_FTPC_UNAVAILABLE, "file or directory unavailable (550)", TK_REFUSED),
    ROW(KEL_FTPC_FILE_BUSY, "file busy, try later (450)", TK_REFUSED),
    ROW(KEL_FTPC_NO_DATA_CONNECTION, "the server can't open the data connection (425)", TK_REFUSED),
    ROW(KEL_FTPC_NO_STORAGE, "not enough storage on the server (452)", TK_REFUSED),
    ROW(KEL_FTPC_BAD_COMMAND, "command or argument refused (500, 501, 503, 504)", TK_REFUSED),
    ROW(KEL_FTPC_STORE_FAILED, "store failed (426, 451, 552 or an early final reply)", TK_REFUSED),
    ROW(KEL_FTPC_RETRIEVE_FAILED, "retrieve failed (426, 451 or an unexpected reply)", TK_REFUSED),
    ROW(KEL_FTPC_DELETE_FAILED, "delete refused (550)", TK_REFUSED),
    ROW(KEL_FTPC_NEED_PASSWORD, "the server wants a password (331)", TK_REFUSED),
    /* SMB; the server's own refusals are 1 to 0xFFFF, see below */
    ROW(KEL_SMB_ERR_CONNECT, "no TCP connection to port 139, or already connected", TK_NETWORK),
    ROW(KEL_SMB_ERR_CONNECT_TIMEOUT, "no TCP connection within 3 s", TK_NETWORK),
    ROW(KEL_SMB_ERR_FILE_WRITE, "the local file could not be written", TK_LOCAL),
    ROW(KEL_SMB_ERR_IO_TIMEOUT, "the server was silent for 3 s", TK_NETWORK),
    ROW(KEL_SMB_ERR_FILE_OPEN, "the local file could not be opened", TK_LOCAL),
    ROW(KEL_SMB_ERR_SOCKET, "no socket or no memory for the session", TK_FAILED),
    ROW(KEL_SMB_ERR_NO_ANSWER, "no NetBIOS name service answer within 750 ms", TK_NETWORK),
    ROW(KEL_SMB_ERR_SEND, "a request could not be sent, or does not fit", TK_NETWORK),
    ROW(KEL_SMB_ERR_RECV, "a reply could not be received: the connection is gone", TK_NETWORK),
    /* mail */
    ROW(KEL_MAIL_ERR_HOST, "server name not resolved", TK_NETWORK),
    ROW(KEL_MAIL_ERR_NO_RECIPIENT, "no recipient, or an address over 127 bytes", TK_USAGE),
    ROW(KEL_MAIL_ERR_DISABLED, "mail sending is off (SMTP_ENABLED)", TK_SETTING),
    ROW(KEL_MAIL_ERR_NO_SENDER, "no sender address (MAIL_SENDER)", TK_SETTING),
    ROW(KEL_MAIL_ERR_CONNECT, "no TCP connection to the server", TK_NETWORK),
    ROW(KEL_MAIL_ERR_CONNECT_TIMEOUT, "no connection within 10 s", TK_NETWORK),
    ROW(KEL_MAIL_ERR_IO, "send or receive failed, or the server closed", TK_NETWORK),
    ROW(KEL_MAIL_ERR_IO_TIMEOUT, "the server was silent for 10 s", TK_NETWORK),
    ROW(KEL_MAIL_ERR_REPLY, "the server refused (wrong reply: login, recipient...)", TK_REFUSED),
    ROW(KEL_MAIL_ERR_UNSUPPORTED, "the server lacks what is needed, or a value is too long", TK_REFUSED),
    ROW(KEL_MAIL_ERR_STATUS, "a device setting could not be read", TK_SETTING),
    ROW(KEL_MAIL_ERR_NO_PART, "no part is open (call order)", TK_FAILED),
    ROW(KEL_MAIL_ERR_PART_OPEN, "a part is already open (call order)", TK_FAILED),
    ROW(KEL_MAIL_ERR_MEMORY, "out of memory", TK_FAILED),
    ROW(KEL_MAIL_ERR_SOCKET, "no socket could be made", TK_FAILED),
    /* date and time; a status service failure is its own number */
    ROW(KEL_TIME_ERR_FORM, "date form not device, number, name or units", TK_USAGE),
    ROW(KEL_TIME_ERR_ORDER, "date order not device, ymd, mdy or dmy", TK_USAGE),
    ROW(KEL_TIME_ERR_BUFFER, "the text does not fit its buffer", TK_FAILED),
    ROW(KEL_TIME_ERR_OPTIONS, "a refused pair of options", TK_USAGE),
    ROW(KEL_TIME_ERR_SETTING, "the device's DATE_FORM holds a nibble not 0, 1 or 2", TK_SETTING),
    ROW(KEL_TIME_ERR_NO_FORMAT, "no format for this form and order", TK_SETTING),
};

/* Known folded SMB refusals: ((class << 4) + code) & 0xFFFF. The fold
 * loses information, so these read as the likeliest class and code. */
static const struct tk_code kSmbFolded[] = {
    {0x12, "SMB server refusal 0x12", "file not found (class 1 code 2)", TK_REFUSED},
    {0x13, "SMB server refusal 0x13", "path not found (class 1 code 3)", TK_REFUSED},
    {0x14, "SMB server refusal 0x14", "too many open files (class 1 code 4)", TK_REFUSED},
    {0x15, "SMB server refusal 0x15", "access denied (class 1 code 5)", TK_REFUSED},
    {0x16, "SMB server refusal 0x16", "invalid file handle (class 1 code 6)", TK_REFUSED},
    {0x22, "SMB server refusal 0x22", "bad share password (class 2 code 2)", TK_REFUSED},
    {0x24, "SMB server refusal 0x24", "access denied (class 2 code 4)", TK_REFUSED},
    {0x53, "SMB server refusal 0x53", "share not found (class 1 code 0x43)", TK_REFUSED},
};

static const struct tk_code *find(kelResult result, enum tk_family family) {
  size_t i;
  for (i = 0; i < sizeof kCodes / sizeof kCodes[0]; i++)
    if (kCodes[i].code == result) return &kCodes[i];
  if (family == TK_FAMILY_SMB)
    for (i = 0; i < sizeof kSmbFolded / sizeof kSmbFolded[0]; i++)
      if (kSmbFolded[i].code == result) return &kSmbFolded[i];
  return NULL;
}

const char *tk_describe(kelResult result, enum tk_family family, char *out, size_t size) {
  const struct tk_code *row = find(result, family);
  if (row != NULL)
    snprintf(out, size, "%s (0x%08X): %s", row->name, (unsigned)result, row->meaning);
  else if (family == TK_FAMILY_SMB && result <= 0xFFFF)
    snprintf(out, size, "SMB server refusal 0x%X (0x%08X): error class and code folded",
             (unsigned)result, (unsigned)result);
  else if (family == TK_FAMILY_TIME)
    snprintf(out, size, "status service failure %d (0x%08X): the date setting could not be read",
             (int)result, (unsigned)result);
  else
    snprintf(out, size, "unknown result (0x%08X)", (unsigned)result);
  return out;
}

int tk_exit_of(kelResult result, enum tk_family family) {
  const struct tk_code *row = find(result, family);
  if (row != NULL) return row->status;
  if (family == TK_FAMILY_SMB && result <= 0xFFFF) return TK_REFUSED;
  if (family == TK_FAMILY_TIME) return TK_SETTING;
  return TK_FAILED;
}

void tk_print_codes(void) {
  size_t i;
  for (i = 0; i < sizeof kCodes / sizeof kCodes[0]; i++)
    printf("0x%08X  %d  %-28s %s\n", (unsigned)kCodes[i].code, kCodes[i].status, kCodes[i].name,
           kCodes[i].meaning);
  for (i = 0; i < sizeof kSmbFolded / sizeof kSmbFolded[0]; i++)
    printf("0x%08X  %d  %-28s %s\n", (unsigned)kSmbFolded[i].code, kSmbFolded[i].status,
           kSmbFolded[i].name, kSmbFolded[i].meaning);
}

static void vsay(const char *format, va_list args) {
  fprintf(stderr, "tarvikel%s%s: ", *tk_command ? " " : "", tk_command);
  vfprintf(stderr, format, args);
  fputc('\n', stderr);
}

void tk_say(const char *format, ...) {
  va_list args;
  va_start(args, format);
  vsay(format, args);
  va_end(args);
}

int tk_error(int status, const char *format, ...) {
  va_list args;
  va_start(args, format);
  vsay(format, args);
  va_end(args);
  return status;
}

int tk_usage(const char *format, ...) {
  va_list args;
  va_start(args, format);
  vsay(format, args);
  va_end(args);
  fprintf(stderr, "Try 'tarvikel%s%s --help'.\n", *tk_command ? " " : "", tk_command);
  return TK_USAGE;
}

static char gLastCall[64];

kelResult tk_step(kelResult result, enum tk_family family, const char *format, ...) {
  char text[512];
  va_list args;
  va_start(args, format);
  vsnprintf(text, sizeof text, format, args);
  va_end(args);
  snprintf(gLastCall, sizeof gLastCall, "%.*s", (int)strcspn(text, "("), text);
  if (tk_verbose > 0) {
    char meaning[160];
    fprintf(stderr, "  %s -> %s\n", text, tk_describe(result, family, meaning, sizeof meaning));
  }
  return result;
}

kelResult tk_data(kelResult result, enum tk_family family, const char *call, uint64_t bytes) {
  snprintf(gLastCall, sizeof gLastCall, "%s", call);
  if (tk_verbose > 1) {
    char meaning[160];
    fprintf(stderr, "  %s(%llu bytes) -> %s\n", call, (unsigned long long)bytes,
            tk_describe(result, family, meaning, sizeof meaning));
  }
  return result;
}

void tk_data_total(kelResult result, enum tk_family family, const char *call,
                   unsigned long calls, uint64_t bytes) {
  if (tk_verbose == 1) {
    char meaning[160];
    fprintf(stderr, "  %s x %lu calls, %llu bytes -> %s\n", call, calls,
            (unsigned long long)bytes, tk_describe(result, family, meaning, sizeof meaning));
  }
}

int tk_failed(kelResult result, enum tk_family family) {
  char meaning[160];
  return tk_error(tk_exit_of(result, family), "%s: %s", gLastCall,
                  tk_describe(result, family, meaning, sizeof meaning));
}
