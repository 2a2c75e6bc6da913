/* tarvikel mail send: one message through the SMTP application calls: a
 * text body and any number of attachments, which the command encodes into
 * Base64 lines as a device application does. */
#define _GNU_SOURCE
#include <getopt.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "cmd.h"
#include "kelmail.h"

#define F TK_FAMILY_MAIL
#define LINE_BYTES 57    /* 76 Base64 characters a line */
#define LINES_A_WRITE 64 /* lines handed over in one kelMAILWriteSmtp */

static const char kHelp[] =
    "Usage: tarvikel mail send --to ADDRESS [options] [ATTACHMENT...]\n"
    "Sends one message by SMTP: the text body from --body FILE or standard\n"
    "input, then each ATTACHMENT (or --attach FILE) in Base64. Server, port,\n"
    "sender, credentials, EHLO and POP before SMTP come from the device's\n"
    "settings (SMTP_SERVER, SMTP_PORT, MAIL_SENDER, SMTP_AUTH_USER, ...).\n"
    "The subject is a template: %printer, %serial, %etheraddr and %equipid\n"
    "become the device's values.\n"
    "\n"
    "  -t, --to ADDRESS       a recipient; repeat or separate with ';'\n"
    "  -c, --cc ADDRESS       a copy recipient\n"
    "  -b, --bcc ADDRESS      a blind copy recipient\n"
    "  -j, --subject TEXT     the subject template (default 'Scan from %printer')\n"
    "  -B, --body FILE        the text body ('-': standard input, the default)\n"
    "  -a, --attach FILE      an attachment\n"
    "  -s, --server HOST      SMTP_SERVER\n"
    "  -P, --port NUMBER      SMTP_PORT (25)\n"
    "  -f, --from ADDRESS     MAIL_SENDER\n"
    "  -u, --user NAME        SMTP_AUTH_USER\n"
    "  -p, --password TEXT    SMTP_AUTH_PASSWORD\n"
    "\n" TK_COMMON_HELP;

static char gLists[3][2048]; /* to, cc, bcc */
static const char *gSubject = "Scan from %printer";
static const char *gBody = "-";
static const char *gAttachments[256];
static int gAttachmentCount;

static int addTo(char *list, const char *address) {
  size_t used = strlen(list);
  if (used + strlen(address) + 2 > sizeof gLists[0]) return tk_usage("too many recipients");
  snprintf(list + used, sizeof gLists[0] - used, "%s%s", used ? ";" : "", address);
  return TK_GO_ON;
}

static int attach(const char *path) {
  if (gAttachmentCount == (int)(sizeof gAttachments / sizeof gAttachments[0]))
    return tk_usage("too many attachments");
  gAttachments[gAttachmentCount++] = path;
  return TK_GO_ON;
}

static int option(int c, const char *argument) {
  switch (c) {
    case 't': return addTo(gLists[0], argument);
    case 'c': return addTo(gLists[1], argument);
    case 'b': return addTo(gLists[2], argument);
    case 'j': gSubject = argument; return TK_GO_ON;
    case 'B': gBody = argument; return TK_GO_ON;
    case 'a': return attach(argument);
    case 's': return tk_set("SMTP_SERVER", argument, "--server");
    case 'P': return tk_set("SMTP_PORT", argument, "--port");
    case 'f': return tk_set("MAIL_SENDER", argument, "--from");
    case 'u': return tk_set("SMTP_AUTH_USER", argument, "--user");
    case 'p': return tk_set("SMTP_AUTH_PASSWORD", argument, "--password");
  }
  return TK_USAGE;
}

/* Base64 of up to LINES_A_WRITE lines, joined by LF; the count of text. */
static size_t base64Lines(const unsigned char *in, size_t length, char *out) {
  static const char kAlphabet[] =
      "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
  size_t at = 0, i;
  for (i = 0; i < length; i += 3) {
    if (i > 0 && i % LINE_BYTES == 0) out[at++] = '\n';
    uint32_t word = (uint32_t)in[i] << 16;
    if (i + 1 < length) word |= (uint32_t)in[i + 1] << 8;
    if (i + 2 < length) word |= in[i + 2];
    out[at++] = kAlphabet[word >> 18];
    out[at++] = kAlphabet[(word >> 12) & 63];
    out[at++] = i + 1 < length ? kAlphabet[(word >> 6) & 63] : '=';
    out[at++] = i + 2 < length ? kAlphabet[word & 63] : '=';
  }
  return at;
}

static kelResult part(kelMAILSession *s, const char *name, const unsigned char *data, size_t size,
                      struct tk_progress *bar) {
  static char text[LINES_A_WRITE * 77];
  const kelMAILSmtpPart open = {name, name ? 2 : KEL_MAIL_PART_KIND_TEXT};
  kelResult r = tk_step(kelMAILOpenSmtp(s, &open), F, "kelMAILOpenSmtp(%s%s%s)",
                        name ? "attachment \"" : "text", name ? name : "", name ? "\"" : "");
  unsigned long calls = 0;
  size_t at = 0;
  if (name == NULL && r == KEL_OK) { /* the body goes as it is, one call */
    r = tk_data(kelMAILWriteSmtp(s, data, (int32_t)size), F, "kelMAILWriteSmtp", size);
    calls++;
    at = size;
  }
  while (name != NULL && r == KEL_OK && at < size) {
    size_t chunk = size - at < LINE_BYTES * LINES_A_WRITE ? size - at : LINE_BYTES * LINES_A_WRITE;
    size_t length = base64Lines(data + at, chunk, text);
    r = tk_data(kelMAILWriteSmtp(s, text, (int32_t)length), F, "kelMAILWriteSmtp", length);
    calls++;
    at += chunk;
    tk_progress_add(bar, chunk);
  }
  tk_data_total(r, F, "kelMAILWriteSmtp", calls, at);
  if (r == KEL_OK) r = tk_step(kelMAILCloseSmtp(s), F, "kelMAILCloseSmtp()");
  return r;
}

/* The message from start to end; any failure after the start aborts. */
static int send(const unsigned char *body, size_t bodySize, unsigned char *const *data,
                const size_t *sizes, size_t total) {
  const kelMAILSmtpRequest request = {gLists[0], gLists[1][0] ? gLists[1] : NULL,
                                      gLists[2][0] ? gLists[2] : NULL, gSubject};
  kelMAILSession *session = NULL;
  kelResult r = tk_step(kelMAILStartSmtp(&request, &session), F,
                        "kelMAILStartSmtp(to \"%s\", cc \"%s\", bcc \"%s\", subject \"%s\")",
                        gLists[0], gLists[1], gLists[2], gSubject);
  if (r != KEL_OK) return tk_failed(r, F); /* the library has closed and freed all */
  struct tk_progress bar = {0};
  if (bodySize > 0) r = part(session, NULL, body, bodySize, &bar);
  if (gAttachmentCount > 0) tk_progress_start(&bar, "attachments", total);
  for (int i = 0; i < gAttachmentCount && r == KEL_OK; i++)
    r = part(session, tk_basename(gAttachments[i]), data[i], sizes[i], &bar);
  tk_progress_end(&bar);
  if (r != KEL_OK) {
    int status = tk_failed(r, F);
    tk_step(kelMAILAbortEndSmtp(session), F, "kelMAILAbortEndSmtp()");
    return status;
  }
  r = tk_step(kelMAILEndSmtp(session), F, "kelMAILEndSmtp()");
  return r == KEL_OK ? TK_OK : tk_failed(r, F);
}

int tk_mail(int argc, char **argv) {
  static const struct option options[] = {
      TK_COMMON_OPTIONS,
      {"to", required_argument, 0, 't'},       {"cc", required_argument, 0, 'c'},
      {"bcc", required_argument, 0, 'b'},      {"subject", required_argument, 0, 'j'},
      {"body", required_argument, 0, 'B'},     {"attach", required_argument, 0, 'a'},
      {"server", required_argument, 0, 's'},   {"port", required_argument, 0, 'P'},
      {"from", required_argument, 0, 'f'},     {"user", required_argument, 0, 'u'},
      {"password", required_argument, 0, 'p'}, {0, 0, 0, 0}};
  int status = tk_parse(argc, argv, TK_COMMON_SHORT "t:c:b:j:B:a:s:P:f:u:p:", options, kHelp,
                        option);
  if (status != TK_GO_ON) return status;
  const char *action = optind < argc ? argv[optind] : "";
  if (strcmp(action, "send") != 0) return tk_usage("send, not '%s'", action);
  tk_command = "mail send";
  for (int i = optind + 1; i < argc; i++)
    if ((status = attach(argv[i])) != TK_GO_ON) return status;
  if (gLists[0][0] == 0) return tk_usage("no recipient: --to is needed");
  if ((status = tk_settings_load()) != TK_OK) return status;
  if ((status = tk_require("SMTP_SERVER", "--server")) != TK_OK ||
      (status = tk_require("MAIL_SENDER", "--from")) != TK_OK)
    return status;

  /* Every local file is read before the server is called. */
  unsigned char *body = NULL, *data[256] = {0};
  size_t bodySize = 0, sizes[256] = {0}, total = 0;
  status = tk_read_all(gBody, &body, &bodySize);
  for (int i = 0; i < gAttachmentCount && status == TK_OK; i++) {
    status = tk_read_all(gAttachments[i], &data[i], &sizes[i]);
    total += sizes[i];
  }
  if (status == TK_OK && bodySize > 0x7fffffff) status = tk_error(TK_LOCAL, "the body is too large");
  if (status == TK_OK) status = send(body, bodySize, data, sizes, total);
  free(body);
  for (int i = 0; i < gAttachmentCount; i++) free(data[i]);
  return status;
}
