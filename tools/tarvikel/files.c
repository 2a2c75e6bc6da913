/* Local files. */
#define _GNU_SOURCE
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

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
