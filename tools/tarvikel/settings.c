/* Settings: lines of "NAME = value" ('#' starts a comment), the format of the
 * host stand-in of the device status service. The command's own names
 * (FTP_... and SMB_...) stay here; every other name is the device's and goes
 * to the status service, which refuses names and values it doesn't know.
 * Precedence, lowest first: the command's defaults, the settings file, the
 * command line in its order. */
#define _GNU_SOURCE
#include <ctype.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <strings.h>
#include <unistd.h>

#include "cmd.h"
#include "kelhost.h"

struct setting {
  char *name, *value, *origin;
};

static struct setting *gAll;
static size_t gCount;
static struct setting *gLine; /* command-line overrides, applied last */
static size_t gLineCount;
static const char *gFile;
static int gNoFile;

static const char *const kOwn[] = {"FTP_SERVER", "FTP_USER",    "FTP_PASSWORD",
                                   "SMB_SERVER", "SMB_NAME", "SMB_PASSWORD"};

/* Defaults that make a device run without a full settings file. */
static const char *const kDefaults[][2] = {
    {"SMTP_PORT", "25"},        {"POP3_PORT", "110"},     {"SMTP_ENABLED", "1"},
    {"SMTP_USE_EHLO", "1"},     {"HELO_NAME", "tarvikel"}, {"SMB_NAME", "TARVIKEL"},
};

static int own(const char *name) {
  size_t i;
  for (i = 0; i < sizeof kOwn / sizeof kOwn[0]; i++)
    if (strcasecmp(kOwn[i], name) == 0) return 1;
  return 0;
}

static void add(struct setting **list, size_t *count, const char *name, const char *value,
                const char *origin) {
  *list = realloc(*list, (*count + 1) * sizeof **list);
  if (*list == NULL) abort();
  (*list)[*count].name = strdup(name);
  (*list)[*count].value = strdup(value);
  (*list)[*count].origin = strdup(origin);
  ++*count;
}

int tk_set(const char *name, const char *value, const char *origin) {
  add(&gLine, &gLineCount, name, value, origin);
  return TK_GO_ON;
}

int tk_set_assignment(const char *text) {
  const char *equals = strchr(text, '=');
  if (equals == NULL || equals == text) return tk_usage("--set wants NAME=VALUE, not '%s'", text);
  char name[128];
  snprintf(name, sizeof name, "%.*s", (int)(equals - text), text);
  return tk_set(name, equals + 1, "--set");
}

void tk_settings_file(const char *path) { gFile = path; }
void tk_settings_none(void) { gNoFile = 1; }

static char *trim(char *s) {
  while (isspace((unsigned char)*s)) s++;
  char *end = s + strlen(s);
  while (end > s && isspace((unsigned char)end[-1])) *--end = 0;
  return s;
}

static int readFile(const char *path) {
  FILE *file = fopen(path, "r");
  if (file == NULL) return tk_error(TK_SETTING, "settings file %s can't be read", path);
  char line[1024], origin[1100];
  int number = 0;
  while (fgets(line, sizeof line, file)) {
    number++;
    char *hash = strchr(line, '#');
    if (hash) *hash = 0;
    char *text = trim(line), *equals = strchr(text, '=');
    if (*text == 0) continue;
    if (equals == NULL || equals == text) {
      fclose(file);
      return tk_error(TK_SETTING, "%s:%d: not a line of NAME = value", path, number);
    }
    *equals = 0;
    snprintf(origin, sizeof origin, "%s:%d", path, number);
    add(&gAll, &gCount, trim(text), trim(equals + 1), origin);
  }
  fclose(file);
  if (tk_verbose > 0) fprintf(stderr, "  settings from %s\n", path);
  return TK_OK;
}

/* The first settings file that exists in the documented places. */
static const char *defaultFile(char *buffer, size_t size) {
  const char *xdg = getenv("XDG_CONFIG_HOME"), *home = getenv("HOME");
  if (xdg && *xdg)
    snprintf(buffer, size, "%s/tarvikel/settings", xdg);
  else if (home && *home)
    snprintf(buffer, size, "%s/.config/tarvikel/settings", home);
  else
    buffer[0] = 0;
  if (buffer[0] && access(buffer, F_OK) == 0) return buffer;
  return access("/etc/tarvikel/settings", F_OK) == 0 ? "/etc/tarvikel/settings" : NULL;
}

static int lastOf(size_t i) {
  size_t j;
  for (j = i + 1; j < gCount; j++)
    if (strcasecmp(gAll[j].name, gAll[i].name) == 0) return 0;
  return 1;
}

/* The device's settings, last value of each, through a file for the status
 * service's loader; its bad line number leads back to the origin. */
static int toStatusService(void) {
  char path[4096];
  const char *dir = getenv("TMPDIR");
  snprintf(path, sizeof path, "%s/tarvikel.XXXXXX", dir && *dir ? dir : "/tmp");
  int fd = mkstemp(path);
  if (fd < 0) return tk_error(TK_LOCAL, "no temporary file in %s", path);
  FILE *out = fdopen(fd, "w");
  if (out == NULL) {
    close(fd);
    unlink(path);
    return tk_error(TK_LOCAL, "no temporary file in %s", path);
  }
  size_t *rows = calloc(gCount + 1, sizeof *rows), lines = 0, i;
  int status = TK_OK;
  for (i = 0; i < gCount && status == TK_OK; i++) {
    if (own(gAll[i].name) || !lastOf(i)) continue;
    if (strpbrk(gAll[i].value, "#\n") != NULL)
      status = tk_error(TK_SETTING, "%s (%s): a device setting can't hold '#'", gAll[i].name,
                        gAll[i].origin);
    fprintf(out, "%s = %s\n", gAll[i].name, gAll[i].value);
    rows[lines++] = i;
  }
  fclose(out);
  int bad = status == TK_OK ? kelHostStatusLoadFile(path) : 0;
  unlink(path);
  if (bad < 0) status = tk_error(TK_LOCAL, "temporary settings file %s can't be read", path);
  if (bad > 0) {
    const struct setting *s = &gAll[rows[bad - 1]];
    status = tk_error(TK_SETTING, "setting %s = '%s' (%s): unknown name or bad value", s->name,
                      s->value, s->origin);
  }
  free(rows);
  return status;
}

int tk_settings_load(void) {
  size_t i;
  for (i = 0; i < sizeof kDefaults / sizeof kDefaults[0]; i++)
    add(&gAll, &gCount, kDefaults[i][0], kDefaults[i][1], "default");
  char buffer[4096];
  const char *file = gNoFile ? NULL : gFile ? gFile : defaultFile(buffer, sizeof buffer);
  if (file != NULL) {
    int status = readFile(file);
    if (status != TK_OK) return status;
  }
  for (i = 0; i < gLineCount; i++) add(&gAll, &gCount, gLine[i].name, gLine[i].value, gLine[i].origin);
  return toStatusService();
}

const char *tk_get(const char *name) {
  size_t i;
  for (i = gCount; i > 0; i--)
    if (strcasecmp(gAll[i - 1].name, name) == 0) return gAll[i - 1].value;
  return "";
}

int tk_require(const char *name, const char *flag) {
  if (*tk_get(name) != 0) return TK_OK;
  return tk_error(TK_SETTING, "missing setting %s (settings file, --set %s=...%s%s)", name, name,
                  flag ? " or " : "", flag ? flag : "");
}
