// Format selection: the table of date and time formats per date form and
// order, and its editing by the option bits into one format text.

#include <string.h>

#include "time_internal.h"

extern "C" const kelTIMEFormatRow kelTIMEFormatTable[] = {
    {1, 1, "%yy%CS%mm%CS%dd", "%hh%CC%nn"},
    {1, 2, "%mm%CS%dd%CS%yy", "%hh%CC%nn"},
    {1, 4, "%dd%CS%mm%CS%yy", "%hh%CC%nn"},
    {2, 1, "%yy%CS%SM%CS%dd", "%hh%CC%nn"},
    {2, 2, "%SM%CS%dd%CS%yy", "%hh%CC%nn"},
    {2, 4, "%dd%CS%SM%CS%yy", "%hh%CC%nn"},
    {4, 1, "%yy%KY%mm%KM%dd%KD", "%hh%KH%nn%KN"},
    {4, 2, "%mm%KM%dd%KD%yy%KY", "%hh%KH%nn%KN"},
    {4, 4, "%dd%KD%mm%KM%yy%KY", "%hh%KH%nn%KN"},
    {-1, -1, nullptr, nullptr},
};

namespace {

// The composed format text. One for the process: the call isn't
// re-entrant. The longest text the rules compose has 40 characters.
char kelTIMEFormatBuffer[KEL_TIME_FORMAT_BUFFER_SIZE];

void append(const char *text) {
  size_t used = strlen(kelTIMEFormatBuffer);
  size_t room = sizeof kelTIMEFormatBuffer - 1 - used;
  size_t count = strlen(text);
  if (count > room) count = room;
  memcpy(kelTIMEFormatBuffer + used, text, count);
  kelTIMEFormatBuffer[used + count] = '\0';
}

// Replaces the first occurrence of token, or all of them, by another token
// of the same length, in place. Every '%' of the text starts a token, so a
// match is always a whole token.
void replace(const char *token, const char *by, bool all) {
  char *at = kelTIMEFormatBuffer;
  while ((at = strstr(at, token)) != nullptr) {
    memcpy(at, by, KEL_TIME_TOKEN_LENGTH);
    if (!all) return;
    at += KEL_TIME_TOKEN_LENGTH;
  }
}

const kelTIMEFormatRow *findRow(int32_t form, int32_t order) {
  for (const kelTIMEFormatRow *row = kelTIMEFormatTable; row->dateFormat; row++)
    if (row->dateForm == form && row->dateOrder == order) return row;
  return nullptr;
}

}  // namespace

extern "C" const char *kelTIMEComposeFormat(int32_t form, int32_t order,
                                            uint32_t options) {
  const kelTIMEFormatRow *row = findRow(form, order);
  if (!row) return nullptr;
  kelTIMEFormatBuffer[0] = '\0';
  bool units = form == KEL_TIME_FORM_UNITS;

  if (!(options & KEL_TIME_NO_DATE)) {
    append(row->dateFormat);
    if (options & KEL_TIME_SHORT_YEAR) replace("%yy", "%YY", false);
    if (options & KEL_TIME_SEP_HYPHEN) replace("%CS", "%CH", true);
    if (options & KEL_TIME_SEP_SPACE) replace("%CS", "%CP", true);
  }

  if (!(options & (KEL_TIME_NO_DATE | KEL_TIME_NO_TIME | KEL_TIME_NO_SEPARATORS)))
    append(" ");

  if (!(options & KEL_TIME_NO_TIME)) {
    const char *marker = units ? "%KR" : "%AP";
    if (options & KEL_TIME_AMPM_BEFORE) append(marker);
    append(row->timeFormat);
    // Seconds only with their own bit, also behind an AM/PM marker.
    if (options & KEL_TIME_SECONDS) append(units ? "%ss%KS" : "%CC%ss");
    if (options & KEL_TIME_AMPM_AFTER) append(marker);
    if (options & (KEL_TIME_AMPM_BEFORE | KEL_TIME_AMPM_AFTER))
      replace("%hh", "%HH", false);
  }

  // Last, so that it also takes out what the steps above put in.
  if (options & KEL_TIME_NO_SEPARATORS)
    for (const kelTIMETokenRow *token = kelTIMETokenTable; token->token; token++)
      if (token->flag == 1) replace(token->token, "%CN", true);

  return kelTIMEFormatBuffer;
}
