// The session's paths: makepath and checkdirpath, and the split of a UNC
// path into share path, directory and file path, which cuts the path in
// place.

#include <string.h>

#include "smb_internal.h"

namespace {

const char kSeparator[] = "\\";

// Appends text to the string in buffer; what doesn't fit is left off.
void append(char *buffer, size_t size, const char *text) {
  size_t at = strnlen(buffer, size - 1);
  size_t n = strnlen(text, size - 1 - at);
  memcpy(buffer + at, text, n);
  buffer[at + n] = '\0';
}

}  // namespace

extern "C" {

char makepath[256];
char checkdirpath[512];

void smb_splitpath(char *path, const char *file, char *share,
                   char *filePath) {
  const size_t size = SMB_BUFFER_SIZE;
  memset(checkdirpath, 0, sizeof checkdirpath);
  // strtok_r: the split keeps its position to itself.
  char *position = nullptr;
  const char *server = strtok_r(path, kSeparator, &position);
  if (server != nullptr) {
    append(share, size, "\\\\");
    append(share, size, server);
    append(share, size, kSeparator);
    const char *component = strtok_r(nullptr, kSeparator, &position);
    if (component != nullptr) append(share, size, component);
    append(checkdirpath, sizeof checkdirpath, kSeparator);
    if (component != nullptr)
      while ((component = strtok_r(nullptr, kSeparator, &position)) != nullptr) {
        append(checkdirpath, sizeof checkdirpath, component);
        append(checkdirpath, sizeof checkdirpath, kSeparator);
      }
  }
  if (file[0] == '\\' && file[1] == '\\') {
    memcpy(filePath, file, strnlen(file, 4));
    filePath[strnlen(file, 4)] = '\0';
  } else {
    append(filePath, size, checkdirpath);
    append(filePath, size, file);
  }
}

}  // extern "C"

void smb_splitfresh(char *path, const char *file, char *share, char *filePath) {
  memset(share, 0, SMB_BUFFER_SIZE);
  memset(filePath, 0, SMB_BUFFER_SIZE);
  memset(checkdirpath, 0, sizeof checkdirpath);
  smb_splitpath(path, file, share, filePath);
}
