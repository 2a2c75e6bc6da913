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
