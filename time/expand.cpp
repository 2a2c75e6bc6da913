// Token expansion: walks a format text and appends each token's text, or
// each plain character, to the caller's buffer within its byte budget.

#include <string.h>

#include "time_internal.h"

extern "C" kelResult kelTIMEExpandFormat(const struct tm *record,
                                         const char *format, uint32_t length,
                                         char *buffer) {
  uint32_t room = length;  // bytes still free, the NUL's included
  const char *position = format;
  char scratch[KEL_TIME_SCRATCH_SIZE];

  while (*position != '\0' && room > 1) {
    const char *text = position;  // a plain character stands for itself
    uint32_t count = 1;
    size_t advance = 1;
    if (*position == '%') {
      // A '%' that starts no token is a plain character too.
      const kelTIMETokenRow *row = kelTIMEFindToken(position);
      if (row) {
        int32_t written = row->handler(record, scratch);
        count = written < 0 ? 0 : static_cast<uint32_t>(written);
        text = scratch;
        advance = strlen(row->token);
      }
    }
    // Nothing of a field that doesn't fit whole; one byte stays for the NUL.
    if (room <= count) return KEL_TIME_ERR_BUFFER;
    char *end = buffer + (length - room);
    memcpy(end, text, count);
    end[count] = '\0';
    room -= count;
    position += advance;
  }
  return *position == '\0' ? KEL_OK : KEL_TIME_ERR_BUFFER;
}
