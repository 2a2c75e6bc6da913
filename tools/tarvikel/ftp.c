/* tarvikel ftp put|get|rm: one file through the FTP application calls, as a
 * device does (port 21, image type, passive mode unless the server refuses
 * it with 502). */
#define _GNU_SOURCE
#include <getopt.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include "cmd.h"
#include "kelftpc.h"

#define BLOCK 32768
#define F TK_FAMILY_FTP

static const char kHelp[] =
    "Usage: tarvikel ftp put LOCAL [REMOTE]\n"
    "       tarvikel ftp get REMOTE [LOCAL]\n"
    "       tarvikel ftp rm REMOTE\n"
    "Stores, fetches or deletes one file on an FTP server (port 21, binary).\n"
    "REMOTE is DIRECTORY/NAME or NAME; it defaults to LOCAL's name, and LOCAL\n"
    "to REMOTE's. LOCAL '-' is standard input or output. A failed fetch\n"
    "removes the local file; a failed store removes the remote one.\n"
    "\n"
    "  -s, --server HOST      FTP_SERVER\n"
    "  -u, --user NAME        FTP_USER\n"
    "  -p, --password TEXT    FTP_PASSWORD\n"
    "\n" TK_COMMON_HELP;

static int option(int c, const char *argument) {
  switch (c) {
    case 's': return tk_set("FTP_SERVER", argument, "--server");
    case 'u': return tk_set("FTP_USER", argument, "--user");
    case 'p': return tk_set("FTP_PASSWORD", argument, "--password");
  }
  return TK_USAGE;
}

/* "dir/sub/name" -> directory "dir/sub/", name "name". */
struct remote {
  char directory[512];
  const char *name;
};

static int split(const char *path, struct remote *out) {
  const char *slash = strrchr(path, '/');
  size_t length = slash ? (size_t)(slash - path) + 1 : 0;
  out->name = slash ? slash + 1 : path;
  if (*out->name == 0) return tk_usage("'%s' names no file", path);
  if (length >= sizeof out->directory) return tk_usage("'%s' is too long", path);
  memcpy(out->directory, path, length);
  out->directory[length] = 0;
  return TK_OK;
}

static kelResult writeData(void *s, const void *data, uint32_t count) { return kelFTPCWrite(s, data, count); }

static int put(kelFTPCSession *s, const kelFTPCFileRecord *file, FILE *in, uint64_t size) {
  kelResult r = tk_step(kelFTPCWriteOpen(s, file), F, "kelFTPCWriteOpen(\"%s\", \"%s\")",
                        file->directory, file->fileName);
  if (r != KEL_OK) return tk_failed(r, F);
  int status = tk_put_stream(in, size, file->fileName, F, "kelFTPCWrite", writeData, s);
  if (status != TK_OK) return status;
  r = tk_step(kelFTPCWriteClose(s), F, "kelFTPCWriteClose()");
  return r == KEL_OK ? TK_OK : tk_failed(r, F);
}

static int get(kelFTPCSession *s, const kelFTPCFileRecord *file, const char *local) {
  static unsigned char block[BLOCK];
  struct tk_progress bar;
  kelResult r = tk_step(kelFTPCReadOpen(s, file), F, "kelFTPCReadOpen(\"%s\", \"%s\")",
                        file->directory, file->fileName);
  if (r != KEL_OK) return tk_failed(r, F);
  int toStdout = strcmp(local, "-") == 0;
  FILE *out = toStdout ? stdout : fopen(local, "wb");
  if (out == NULL) return tk_error(TK_LOCAL, "%s can't be written", local);
  unsigned long calls = 0;
  uint64_t total = 0;
  uint32_t count = 0;
  int status = TK_OK;
  tk_progress_start(&bar, file->fileName, 0);
  do {
    r = kelFTPCRead(s, block, sizeof block, &count);
    tk_data(r, F, "kelFTPCRead", count);
    calls++;
    if (r == KEL_OK && fwrite(block, 1, count, out) != count) status = TK_LOCAL;
    total += count;
    tk_progress_add(&bar, count);
  } while (r == KEL_OK && count != 0 && status == TK_OK);
  tk_progress_end(&bar);
  tk_data_total(r, F, "kelFTPCRead", calls, total);
  if (toStdout ? fflush(out) != 0 : fclose(out) != 0) status = TK_LOCAL;
  if (r == KEL_OK && status == TK_OK) {
    r = tk_step(kelFTPCReadClose(s), F, "kelFTPCReadClose()");
    if (r == KEL_OK) return TK_OK;
  }
  if (!toStdout) unlink(local);
  if (status != TK_OK) return tk_error(status, "%s can't be written", local);
  return tk_failed(r, F);
}

int tk_ftp(int argc, char **argv) {
  static const struct option options[] = {TK_COMMON_OPTIONS,
                                          {"server", required_argument, 0, 's'},
                                          {"user", required_argument, 0, 'u'},
                                          {"password", required_argument, 0, 'p'},
                                          {0, 0, 0, 0}};
  int status = tk_parse(argc, argv, TK_COMMON_SHORT "s:u:p:", options, kHelp, option);
  if (status != TK_GO_ON) return status;
  struct tk_transfer t;
  if ((status = tk_transfer_args("ftp", argc, argv, &t)) != TK_GO_ON) return status;
  struct remote remote;
  if ((status = split(t.remote, &remote)) != TK_OK) return status;
  if ((status = tk_settings_load()) != TK_OK) return status;
  if ((status = tk_require("FTP_SERVER", "--server")) != TK_OK ||
      (status = tk_require("FTP_USER", "--user")) != TK_OK)
    return status;

  if (t.put && (status = tk_open_source(&t)) != TK_GO_ON) return status;
  kelFTPCServerRecord server = {tk_get("FTP_SERVER"), tk_get("FTP_USER"), tk_get("FTP_PASSWORD")};
  kelFTPCFileRecord file = {remote.directory, remote.name};
  kelFTPCSession *session = NULL;
  kelResult r = tk_step(kelFTPCStart(&server, &session), F, "kelFTPCStart(\"%s\", user \"%s\")",
                        server.serverName, server.userName);
  if (r != KEL_OK) {
    status = tk_failed(r, F);
  } else {
    if (t.put)
      status = put(session, &file, t.in, t.size);
    else if (t.get)
      status = get(session, &file, t.local);
    else if ((r = tk_step(kelFTPCProtoDelete(session, file.directory, file.fileName), F,
                          "kelFTPCProtoDelete(\"%s\", \"%s\")", file.directory,
                          file.fileName)) != KEL_OK)
      status = tk_failed(r, F);
    /* A failure ends with the abort call: it deletes a half-stored file. */
    if (status == TK_OK)
      r = tk_step(kelFTPCEnd(session), F, "kelFTPCEnd()");
    else
      r = tk_step(kelFTPCAbortEnd(session), F, "kelFTPCAbortEnd()");
    if (status == TK_OK && r != KEL_OK) status = tk_failed(r, F);
  }
  tk_close_source(&t);
  return status;
}
