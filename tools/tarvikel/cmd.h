/* The tarvikel command: what its parts share. The command is a tool beside
 * the library: it uses only the public headers and the host stand-ins, and
 * takes its own memory from libc. */
#ifndef TARVIKEL_CMD_H
#define TARVIKEL_CMD_H

#include <stddef.h>
#include <stdint.h>
#include <stdio.h>

#include "kelbase.h"

/* Exit codes: stable, documented in --help and tarvikel(1). */
enum {
  TK_OK = 0,
  TK_FAILED = 1,  /* the library or host failed: memory, sockets, call order */
  TK_USAGE = 2,   /* wrong command line */
  TK_SETTING = 3, /* a setting missing or refused */
  TK_LOCAL = 4,   /* a local file can't be read or written */
  TK_REFUSED = 5, /* the server answered and refused */
  TK_NETWORK = 6  /* host unknown, no connection, time-out, connection lost */
};

/* Which family a result comes from, for the codes outside the table. */
enum tk_family { TK_FAMILY_FTP, TK_FAMILY_SMB, TK_FAMILY_MAIL, TK_FAMILY_TIME };

extern int tk_verbose;
extern const char *tk_command; /* "ftp put", for messages */

/* ---- messages and results (result.c) ---- */
void tk_say(const char *format, ...) __attribute__((format(printf, 1, 2)));
int tk_error(int status, const char *format, ...) __attribute__((format(printf, 2, 3)));
int tk_usage(const char *format, ...) __attribute__((format(printf, 1, 2)));
/* "NAME (0x........): meaning" into out. */
const char *tk_describe(kelResult result, enum tk_family family, char *out, size_t size);
int tk_exit_of(kelResult result, enum tk_family family);
/* Shows one library call and its result with -v; returns result. The
 * description names the call first: "kelFTPCStart(...)". */
kelResult tk_step(kelResult result, enum tk_family family, const char *format, ...)
    __attribute__((format(printf, 3, 4)));
/* A data call (kelFTPCWrite ...): shown one by one with -v -v; with -v,
 * tk_data_total shows how many there were and what they moved. */
kelResult tk_data(kelResult result, enum tk_family family, const char *call, uint64_t bytes);
void tk_data_total(kelResult result, enum tk_family family, const char *call,
                   unsigned long calls, uint64_t bytes);
/* Reports the failure of the last step and returns its exit code. */
int tk_failed(kelResult result, enum tk_family family);
/* Prints the whole table: tarvikel codes. */
void tk_print_codes(void);

/* ---- settings (settings.c) ---- */
/* Command-line overrides, gathered while options are parsed. */
int tk_set(const char *name, const char *value, const char *origin);
int tk_set_assignment(const char *text); /* "NAME=VALUE" */
void tk_settings_file(const char *path); /* --settings */
void tk_settings_none(void);             /* --no-settings */
/* Defaults, the file, then the overrides; the device's settings go to the
 * status service. TK_OK or an exit code (message printed). */
int tk_settings_load(void);
const char *tk_get(const char *name); /* "" when unset */
/* TK_OK, or TK_SETTING with a message naming the setting and its flag. */
int tk_require(const char *name, const char *flag);

/* ---- progress bar on a terminal (progress.c) ---- */
struct tk_progress {
  int on;
  const char *label;
  uint64_t total; /* 0: unknown */
  uint64_t done;
  double start, drawn;
};
void tk_progress_start(struct tk_progress *p, const char *label, uint64_t total);
void tk_progress_add(struct tk_progress *p, uint64_t bytes);
void tk_progress_end(struct tk_progress *p);

/* ---- common options ---- */
/* getopt_long codes of the options every subcommand takes. */
enum { TK_OPT_SETTINGS = 0x1000, TK_OPT_NO_SETTINGS, TK_OPT_SET, TK_OPT_VERSION, TK_OPT_LAST };
#define TK_COMMON_OPTIONS                                                   \
  {"verbose", no_argument, 0, 'v'}, {"help", no_argument, 0, 'h'},          \
      {"settings", required_argument, 0, TK_OPT_SETTINGS},                  \
      {"no-settings", no_argument, 0, TK_OPT_NO_SETTINGS},                  \
      {"set", required_argument, 0, TK_OPT_SET},                            \
      {"version", no_argument, 0, TK_OPT_VERSION}
#define TK_COMMON_SHORT "vh"
#define TK_COMMON_HELP                                                      \
  "Common options:\n"                                                       \
  "  -v, --verbose          show each library call and its result (twice:\n" \
  "                         also every data call)\n"                        \
  "      --settings FILE    read settings from FILE\n"                      \
  "      --no-settings      read no settings file\n"                        \
  "      --set NAME=VALUE   a setting, over the file's\n"                   \
  "  -h, --help             this help\n"                                    \
  "Exit: 0 ok, 1 library failure, 2 usage, 3 setting, 4 local file,\n"      \
  "      5 refused by the server, 6 network failure.\n"
/* Handles a common option: TK_GO_ON when taken, TK_NOT_COMMON, or the exit
 * code when the run ends here (help, version, an unknown option). */
enum { TK_GO_ON = -1, TK_NOT_COMMON = -2 };
int tk_common_option(int option, const char *argument, const char *help);
/* Parses a subcommand's options (argv[0] is its name): common ones here, the
 * others through handler, which returns TK_GO_ON or an exit code. Returns
 * TK_GO_ON with the operands from optind, or the exit code. */
struct option;
int tk_parse(int argc, char **argv, const char *shortOptions, const struct option *options,
             const char *help, int (*handler)(int option, const char *argument));

/* ---- local files (files.c) ---- */
const char *tk_basename(const char *path);
/* Reads a whole file, or standard input for "-". */
int tk_read_all(const char *path, unsigned char **data, size_t *size);
/* The operands of put, get and rm from optind on (tk_command becomes
 * "FAMILY ACTION"): REMOTE and LOCAL, each defaulting to the other's base
 * name. For put, tk_open_source opens LOCAL ("-": standard input) and learns
 * its size when it is a regular file; tk_close_source closes it. */
struct tk_transfer {
  int put, get;
  const char *remote, *local;
  FILE *in;
  uint64_t size;
};
int tk_transfer_args(const char *family, int argc, char **argv, struct tk_transfer *t);
int tk_open_source(struct tk_transfer *t);
void tk_close_source(struct tk_transfer *t);
/* Streams in through a family's write call in blocks, with the progress bar
 * and the data calls' report; the first failure ends it. */
typedef kelResult (*tk_writer)(void *session, const void *data, uint32_t count);
int tk_put_stream(FILE *in, uint64_t size, const char *label, enum tk_family family,
                  const char *call, tk_writer write, void *session);

/* ---- subcommands ---- */
int tk_ftp(int argc, char **argv);
int tk_smb(int argc, char **argv);
int tk_mail(int argc, char **argv);
int tk_pop3(int argc, char **argv);
int tk_date(int argc, char **argv);

#endif
