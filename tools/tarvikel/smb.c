/* tarvikel smb put|get|rm: one file on a share through the SMB application
 * calls (core dialect over NetBIOS, share password, no user logon). */
#define _GNU_SOURCE
#include <fcntl.h>
#include <getopt.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include "cmd.h"
#include "kelsmbc.h"

#define F TK_FAMILY_SMB

static const char kHelp[] =
    "Usage: tarvikel smb put LOCAL [REMOTE]\n"
    "       tarvikel smb get REMOTE [LOCAL]\n"
    "       tarvikel smb rm REMOTE\n"
    "Stores, fetches or deletes one file on an SMB share (core dialect,\n"
    "NetBIOS on ports 137 and 139). SMB_SERVER is \\\\HOST\\SHARE[\\DIR] (or\n"
    "with '/'); HOST is an address or a NetBIOS name. REMOTE is a path below\n"
    "it, 'dir/name' or 'dir\\name'; it defaults to LOCAL's name, and LOCAL to\n"
    "REMOTE's. A failed fetch removes the local file; a failed store removes\n"
    "the remote one. The library's name lookup line (MAC: ...) shows with -v.\n"
    "\n"
    "  -s, --server UNC       SMB_SERVER\n"
    "  -n, --name NAME        SMB_NAME, the calling NetBIOS name (TARVIKEL)\n"
    "  -p, --password TEXT    SMB_PASSWORD, the share password\n"
    "\n" TK_COMMON_HELP;

static int option(int c, const char *argument) {
  switch (c) {
    case 's': return tk_set("SMB_SERVER", argument, "--server");
    case 'n': return tk_set("SMB_NAME", argument, "--name");
    case 'p': return tk_set("SMB_PASSWORD", argument, "--password");
  }
  return TK_USAGE;
}

static void backslashes(char *text) {
  for (; *text; text++)
    if (*text == '/') *text = '\\';
}

/* The folders of the UNC path after host and share, as "\d1\d2\": the
 * prefix that the library puts before a file of the share. */
static void folders(const char *unc, char *out, size_t size) {
  const char *at = unc + strspn(unc, "\\");
  int skip = 2;
  snprintf(out, size, "\\");
  while (*at) {
    size_t length = strcspn(at, "\\");
    if (length > 0 && skip-- <= 0 && strlen(out) + length + 2 < size) {
      strncat(out, at, length);
      strcat(out, "\\");
    }
    at += length + strspn(at + length, "\\");
  }
}

static kelResult writeData(void *s, const void *data, uint32_t count) { return kelSMBCWrite(s, data, count); }

static int put(kelSMBCSession *s, const kelSMBCFileRecord *file, FILE *in, uint64_t size) {
  kelResult r = tk_step(kelSMBCWriteOpen(s, file), F, "kelSMBCWriteOpen(\"%s\")", file->file);
  if (r != KEL_OK) return tk_failed(r, F);
  int status = tk_put_stream(in, size, file->file, F, "kelSMBCWrite", writeData, s);
  if (status != TK_OK) return status;
  r = tk_step(kelSMBCWriteClose(s), F, "kelSMBCWriteClose()");
  return r == KEL_OK ? TK_OK : tk_failed(r, F);
}

/* The device's download: data requests of 4096 bytes, each stored in the
 * local sink that kelSMBCReadOpen opened. */
static int gSinkOpened; /* a failed download removes only a file it made */

static int get(kelSMBCSession *s, const kelSMBCFileRecord *file) {
  static unsigned char block[4096];
  struct tk_progress bar;
  kelResult r = tk_step(kelSMBCReadOpen(s, file), F, "kelSMBCReadOpen(\"%s\", \"%s\")",
                        file->file, file->localFile);
  if (r != KEL_OK) return tk_failed(r, F);
  gSinkOpened = 1;
  unsigned long calls = 0;
  uint64_t total = 0;
  tk_progress_start(&bar, file->file, s->fileSize);
  for (;;) {
    r = kelSMBCprotoGetData(s, block, sizeof block);
    tk_data(r, F, "kelSMBCprotoGetData", s->dataLength);
    if (r != KEL_OK || s->dataLength == 0) break;
    r = tk_data(kelSMBCRead(s, block, s->dataLength), F, "kelSMBCRead", s->dataLength);
    if (r != KEL_OK) break;
    calls++;
    total += s->dataLength;
    tk_progress_add(&bar, s->dataLength);
  }
  tk_progress_end(&bar);
  tk_data_total(r, F, "kelSMBCprotoGetData and kelSMBCRead", calls, total);
  if (r == KEL_OK) r = tk_step(kelSMBCReadClose(s), F, "kelSMBCReadClose()");
  return r == KEL_OK ? TK_OK : tk_failed(r, F);
}

/* The delete request's reply tells nothing: an open before it tells
 * whether the file is there, and an open after it whether it is gone. */
static int removeFile(kelSMBCSession *s, const char *remote, const char *path) {
  kelResult r = tk_step(kelSMBCprotoGetOpen(s, makepath, remote), F, "kelSMBCprotoGetOpen(\"%s\")", remote);
  if (r == KEL_OK) r = tk_step(kelSMBCprotoGetClose(s), F, "kelSMBCprotoGetClose()");
  if (r == KEL_OK) r = tk_step(kelSMBCprotodelete(s, path), F, "kelSMBCprotodelete(\"%s\")", path);
  if (r != KEL_OK) return tk_failed(r, F);
  r = tk_step(kelSMBCprotoGetOpen(s, makepath, remote), F, "kelSMBCprotoGetOpen(\"%s\")", remote);
  if (r != KEL_OK) return TK_OK;
  tk_step(kelSMBCprotoGetClose(s), F, "kelSMBCprotoGetClose()");
  return tk_error(TK_REFUSED, "the SMB server kept %s: delete refused", remote);
}

int tk_smb(int argc, char **argv) {
  static const struct option options[] = {TK_COMMON_OPTIONS,
                                          {"server", required_argument, 0, 's'},
                                          {"name", required_argument, 0, 'n'},
                                          {"password", required_argument, 0, 'p'},
                                          {0, 0, 0, 0}};
  int status = tk_parse(argc, argv, TK_COMMON_SHORT "s:n:p:", options, kHelp, option);
  if (status != TK_GO_ON) return status;
  /* The SMB calls leave SIGPIPE to the application: a server that resets the
   * connection must give a failed call, not end the command. */
  signal(SIGPIPE, SIG_IGN);
  struct tk_transfer t;
  if ((status = tk_transfer_args("smb", argc, argv, &t)) != TK_GO_ON) return status;
  char remote[KEL_SMBC_NAME_SIZE], server[256], path[512];
  if (snprintf(remote, sizeof remote, "%s", t.remote) >= (int)sizeof remote)
    return tk_usage("REMOTE is longer than %d bytes", (int)sizeof remote - 1);
  backslashes(remote);
  if ((status = tk_settings_load()) != TK_OK) return status;
  if ((status = tk_require("SMB_SERVER", "--server")) != TK_OK) return status;
  if (snprintf(server, sizeof server, "%s", tk_get("SMB_SERVER")) > 253)
    return tk_error(TK_SETTING, "SMB_SERVER is longer than 253 bytes");
  backslashes(server);

  if (t.get && strcmp(t.local, "-") == 0) return tk_usage("an SMB download goes to a file, not '-'");
  if (t.put && (status = tk_open_source(&t)) != TK_GO_ON) return status;
  kelSMBCServerRecord record = {server, tk_get("SMB_NAME"), tk_get("SMB_PASSWORD")};
  kelSMBCFileRecord file = {"\\", remote, t.local};
  kelSMBCSession *session = NULL;
  /* The name service exchange prints a line on standard output: to standard
   * error with -v, else nowhere, so that the command stays quiet. */
  fflush(stdout);
  int saved = dup(1), sink = tk_verbose > 0 ? dup(2) : open("/dev/null", O_WRONLY);
  if (saved >= 0 && sink >= 0) dup2(sink, 1);
  kelResult r = kelSMBCStart(&record, &session, &file);
  fflush(stdout);
  if (saved >= 0 && sink >= 0) dup2(saved, 1);
  if (saved >= 0) close(saved);
  if (sink >= 0) close(sink);
  tk_step(r, F, "kelSMBCStart(\"%s\", name \"%s\")", record.server, record.user);
  if (r != KEL_OK) {
    status = tk_failed(r, F);
  } else {
    if (t.put) {
      status = put(session, &file, t.in, t.size);
    } else if (t.get) {
      status = get(session, &file);
    } else {
      folders(server, path, sizeof path);
      strncat(path, remote, sizeof path - strlen(path) - 1);
      status = removeFile(session, remote, path);
    }
    /* The abort call deletes a half-stored file and closes the sink. */
    if (status == TK_OK)
      r = tk_step(kelSMBCEnd(session), F, "kelSMBCEnd()");
    else
      r = tk_step(kelSMBCAbortEnd(session), F, "kelSMBCAbortEnd()");
    if (status == TK_OK && r != KEL_OK) status = tk_failed(r, F);
  }
  if (gSinkOpened && status != TK_OK) unlink(t.local);
  tk_close_source(&t);
  return status;
}
