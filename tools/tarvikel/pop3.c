/* tarvikel pop3 list|get|rm: the device's POP3 mailbox through the POP3
 * calls, with the socket held here as a device application holds it. */
#define _GNU_SOURCE
#include <getopt.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "cmd.h"
#include "kelmail.h"

#define F TK_FAMILY_MAIL

static const char kHelp[] =
    "Usage: tarvikel pop3 list\n"
    "       tarvikel pop3 get NUMBER [LOCAL]\n"
    "       tarvikel pop3 rm NUMBER\n"
    "Lists the messages of the device's POP3 mailbox (number and size in KiB),\n"
    "writes one to LOCAL or standard output (line ends LF, dots unstuffed;\n"
    "a failed fetch removes LOCAL), or deletes one. Server, port and login\n"
    "come from the device's settings.\n"
    "\n"
    "  -s, --server HOST      POP3_SERVER\n"
    "  -P, --port NUMBER      POP3_PORT (110)\n"
    "  -u, --user NAME        POP3_USER\n"
    "  -p, --password TEXT    POP3_PASSWORD\n"
    "  -A, --apop             POP3_USE_APOP=1: log in with APOP\n"
    "\n" TK_COMMON_HELP;

static int option(int c, const char *argument) {
  switch (c) {
    case 's': return tk_set("POP3_SERVER", argument, "--server");
    case 'P': return tk_set("POP3_PORT", argument, "--port");
    case 'u': return tk_set("POP3_USER", argument, "--user");
    case 'p': return tk_set("POP3_PASSWORD", argument, "--password");
    case 'A': return tk_set("POP3_USE_APOP", "1", "--apop");
  }
  return TK_USAGE;
}

/* A failure, with the server's last reply where it gave one. */
static int failed(kelResult r) {
  int status = tk_failed(r, F);
  if (r == KEL_MAIL_ERR_REPLY || r == KEL_MAIL_ERR_UNSUPPORTED) {
    size_t length = strcspn(kelMAILRecvBuffer, "\r\n");
    if (length > 0) tk_say("the server said: %.*s", (int)length, kelMAILRecvBuffer);
  }
  return status;
}

static kelResult list(int32_t s) {
  int32_t count = 0;
  kelResult r = tk_step(kelMAILGetMailCount(s, &count), F, "kelMAILGetMailCount()");
  for (int32_t n = 1; r == KEL_OK && n <= count; n++) {
    uint16_t size = 0;
    r = tk_step(kelMAILGetMailSize(s, n, &size), F, "kelMAILGetMailSize(%ld)", (long)n);
    if (r == KEL_OK) printf("%ld\t%u KiB\n", (long)n, (unsigned)size);
  }
  return r;
}

/* The message up to its lone "."; a line longer than the buffer comes in
 * pieces, and only a piece at a line's start is tested for dots. */
static kelResult get(int32_t s, int32_t number, FILE *out, int *writeFailed) {
  char line[1024];
  unsigned long lines = 0;
  kelResult r = tk_step(kelMAILStartMailData(s, number), F, "kelMAILStartMailData(%ld)", (long)number);
  for (int start = 1; r == KEL_OK;) {
    r = kelMAILRecvOneLinePop3(s, line, sizeof line);
    tk_data(r, F, "kelMAILRecvOneLinePop3", r == KEL_OK ? strlen(line) : 0);
    if (r != KEL_OK || (start && strcmp(line, ".\r\n") == 0)) break;
    size_t length = strlen(line);
    int end = length >= 2 && strcmp(line + length - 2, "\r\n") == 0;
    if (end) line[length - 2] = '\n', line[length - 1] = 0;
    const char *text = start && line[0] == '.' ? line + 1 : line;
    if (fputs(text, out) < 0) *writeFailed = 1;
    start = end;
    lines++;
  }
  tk_data_total(r, F, "kelMAILRecvOneLinePop3", lines, 0);
  return r;
}

int tk_pop3(int argc, char **argv) {
  static const struct option options[] = {
      TK_COMMON_OPTIONS,
      {"server", required_argument, 0, 's'}, {"port", required_argument, 0, 'P'},
      {"user", required_argument, 0, 'u'},   {"password", required_argument, 0, 'p'},
      {"apop", no_argument, 0, 'A'},         {0, 0, 0, 0}};
  int status = tk_parse(argc, argv, TK_COMMON_SHORT "s:P:u:p:A", options, kHelp, option);
  if (status != TK_GO_ON) return status;
  const char *action = optind < argc ? argv[optind] : "";
  int operands = argc - optind - 1;
  int isList = strcmp(action, "list") == 0, isGet = strcmp(action, "get") == 0;
  if (!isList && !isGet && strcmp(action, "rm") != 0)
    return tk_usage("list, get or rm, not '%s'", action);
  tk_command = isList ? "pop3 list" : isGet ? "pop3 get" : "pop3 rm";
  if (operands < (isList ? 0 : 1) || operands > (isList ? 0 : isGet ? 2 : 1))
    return tk_usage("wrong number of operands");
  long number = 0;
  if (!isList) {
    char *end = NULL;
    number = strtol(argv[optind + 1], &end, 10);
    if (*end != 0 || number < 1 || number > 0x7fffffff)
      return tk_usage("'%s' is no message number", argv[optind + 1]);
  }
  if ((status = tk_settings_load()) != TK_OK) return status;
  if ((status = tk_require("POP3_SERVER", "--server")) != TK_OK ||
      (status = tk_require("POP3_USER", "--user")) != TK_OK)
    return status;
  FILE *out = stdout;
  const char *local = isGet && operands > 1 && strcmp(argv[optind + 2], "-") != 0 ? argv[optind + 2] : NULL;
  if (local != NULL && (out = fopen(local, "w")) == NULL)
    return tk_error(TK_LOCAL, "%s can't be written", local);

  int32_t socket = -1;
  int writeFailed = 0;
  kelResult r = tk_step(kelMAILConnectPop3Server(&socket), F, "kelMAILConnectPop3Server(\"%s\")",
                        tk_get("POP3_SERVER"));
  if (r == KEL_OK) {
    if (strtoul(tk_get("POP3_USE_APOP"), NULL, 0) != 0)
      r = tk_step(kelMAILLoginPop3ServerByAPOP(socket), F, "kelMAILLoginPop3ServerByAPOP(\"%s\")",
                  tk_get("POP3_USER"));
    else
      r = tk_step(kelMAILLoginPop3Server(socket), F, "kelMAILLoginPop3Server(\"%s\")",
                  tk_get("POP3_USER"));
  }
  if (r == KEL_OK) {
    if (isList)
      r = list(socket);
    else if (isGet)
      r = get(socket, (int32_t)number, out, &writeFailed);
    else
      r = tk_step(kelMAILDeleteMail(socket, (int32_t)number), F, "kelMAILDeleteMail(%ld)", number);
  }
  if (r == KEL_OK) {
    /* QUIT closes the socket after "+OK" and makes a deletion final. */
    r = tk_step(kelMAILDisconnectPop3Server(socket), F, "kelMAILDisconnectPop3Server()");
    if (r != KEL_OK) kelMAILCloseSocket(socket);
    socket = -1;
  }
  status = r == KEL_OK ? TK_OK : failed(r);
  if (socket >= 0) kelMAILCloseSocket(socket); /* no POP3 call closes it on failure */
  if (local != NULL && fclose(out) != 0) writeFailed = 1;
  if (local != NULL && status != TK_OK) remove(local);
  if (status == TK_OK && (writeFailed || fflush(stdout) != 0))
    return tk_error(TK_LOCAL, "%s can't be written", local ? local : "standard output");
  return status;
}
