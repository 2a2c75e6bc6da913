/* Local files. */
#define _GNU_SOURCE
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include "cmd.h"

const char *tk_basename(const char *path) {
  const char *slash = strrchr(path, '/');
  return slash ? slash + 1 : path;
}

int tk_read_all(const char *path, unsigned char **data, size_t *size) {
  FILE *in = strcmp(path, "-") == 0 ? stdin : fopen(path, "rb");
  if (in == NULL) return tk_error(TK_LOCAL, "%s can't be read", path);
  size_t capacity = 65536, n;
  *size = 0;
  *data = malloc(capacity);
  while (*data != NULL && (n = fread(*data + *size, 1, capacity - *size, in)) > 0) {
    *size += n;
    unsigned char *larger = *size < capacity ? *data : realloc(*data, capacity *= 2);
    if (larger == NULL) free(*data);
    *data = larger;
  }
  int failed = *data == NULL || ferror(in);
  if (in != stdin) fclose(in);
  if (failed) {
    free(*data);
    *data = NULL;
    return tk_error(TK_LOCAL, "%s can't be read", path);
  }
  return TK_OK;
}

int tk_put_stream(FILE *in, uint64_t size, const char *label, enum tk_family family,
                  const char *call, tk_writer write, void *session) {
  static unsigned char block[32768];
  struct tk_progress bar;
  kelResult r = KEL_OK;
  unsigned long calls = 0;
  uint64_t total = 0;
  size_t n;
  tk_progress_start(&bar, label, size);
  while (r == KEL_OK && (n = fread(block, 1, sizeof block, in)) > 0) {
    r = tk_data(write(session, block, (uint32_t)n), family, call, n);
    calls++;
    total += n;
    tk_progress_add(&bar, n);
  }
  tk_progress_end(&bar);
  tk_data_total(r, family, call, calls, total);
  if (r != KEL_OK) return tk_failed(r, family);
  if (ferror(in)) return tk_error(TK_LOCAL, "the local file can't be read");
  return TK_OK;
}

int tk_transfer_args(const char *family, int argc, char **argv, struct tk_transfer *t) {
  static char command[16];
  const char *action = optind < argc ? argv[optind] : "";
  char **operand = argv + optind + 1;
  int operands = argc - optind - 1;
  memset(t, 0, sizeof *t);
  t->put = strcmp(action, "put") == 0;
  t->get = strcmp(action, "get") == 0;
  if (!t->put && !t->get && strcmp(action, "rm") != 0)
    return tk_usage("put, get or rm, not '%s'", action);
  snprintf(command, sizeof command, "%s %s", family, action);
  tk_command = command;
  if (operands < 1 || operands > (t->put || t->get ? 2 : 1)) return tk_usage("wrong number of operands");
  if (t->put && strcmp(operand[0], "-") == 0 && operands < 2)
    return tk_usage("standard input needs a REMOTE name");
  const char *other = operands > 1 ? operand[1] : tk_basename(operand[0]);
  t->remote = t->put ? other : operand[0];
  t->local = t->get ? other : operand[0];
  return TK_GO_ON;
}

int tk_open_source(struct tk_transfer *t) {
  struct stat info;
  t->in = strcmp(t->local, "-") == 0 ? stdin : fopen(t->local, "rb");
  if (t->in == NULL) return tk_error(TK_LOCAL, "%s can't be read", t->local);
  if (fstat(fileno(t->in), &info) == 0 && S_ISREG(info.st_mode)) t->size = (uint64_t)info.st_size;
  return TK_GO_ON;
}

void tk_close_source(struct tk_transfer *t) {
  if (t->in != NULL && t->in != stdin) fclose(t->in);
}
