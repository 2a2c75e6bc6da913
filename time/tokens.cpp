// The token table: each token of a format text with its handler, which
// writes the token's text for a local time record.

#include <stdio.h>
#include <string.h>

#include "kel_status.h"
#include "time_internal.h"

extern "C" const uint32_t kelTIMEMonthMessages[12] = {
    0xab, 0xac, 0xad, 0xae, 0xaf, 0xb0, 0xb1, 0xb2, 0xb3, 0xb4, 0xb5, 0xb6,
};

namespace {

// Numbers are computed in 64 bits: a year near the end of int's range
// doesn't overflow, and a value wider than its field counts in full.
int32_t number(char *scratch, const char *format, long long value) {
  int count = snprintf(scratch, KEL_TIME_SCRATCH_SIZE, format, value);
  return count < 0 ? 0 : count;
}

int32_t word(char *scratch, const char *text) {
  size_t count = strlen(text);
  memcpy(scratch, text, count + 1);
  return static_cast<int32_t>(count);
}

// The 12-hour clock runs from 00 to 11: midnight and noon are both 00.
bool afternoon(const struct tm *r) { return r->tm_hour > 11; }

int32_t year(const struct tm *r, char *s) { return number(s, "%04lld", r->tm_year + 1900LL); }
int32_t month(const struct tm *r, char *s) { return number(s, "%02lld", r->tm_mon + 1LL); }
int32_t day(const struct tm *r, char *s) { return number(s, "%02lld", (long long)r->tm_mday); }
int32_t hour(const struct tm *r, char *s) { return number(s, "%02lld", (long long)r->tm_hour); }
int32_t minute(const struct tm *r, char *s) { return number(s, "%02lld", (long long)r->tm_min); }
int32_t second(const struct tm *r, char *s) { return number(s, "%02lld", (long long)r->tm_sec); }

// The last two digits of the year, also before 1900: 1899 gives 99.
int32_t shortYear(const struct tm *r, char *s) {
  long long rest = r->tm_year % 100;
  return number(s, "%02lld", rest < 0 ? rest + 100 : rest);
}

int32_t hour12(const struct tm *r, char *s) {
  return number(s, "%02lld", r->tm_hour - (afternoon(r) ? 12LL : 0LL));
}

// The month name is a message of the status service. A failed read, or a
// month outside 0 to 11, gives an empty name and the expansion goes on.
int32_t monthName(const struct tm *r, char *s) {
  s[0] = '\0';
  if (r->tm_mon < 0 || r->tm_mon > 11) return 0;
  if (vaxoSTCGetMessage(KEL_MESSAGE_CLIENT, kelTIMEMonthMessages[r->tm_mon], s) != 0) {
    s[0] = '\0';
    return 0;
  }
  return static_cast<int32_t>(strlen(s));
}

int32_t ampm(const struct tm *r, char *s) { return word(s, afternoon(r) ? "PM" : "AM"); }
int32_t ampmWord(const struct tm *r, char *s) { return word(s, afternoon(r) ? "午後" : "午前"); }

int32_t unitYear(const struct tm *, char *s) { return word(s, "年"); }
int32_t unitMonth(const struct tm *, char *s) { return word(s, "月"); }
int32_t unitDay(const struct tm *, char *s) { return word(s, "日"); }
int32_t unitHour(const struct tm *, char *s) { return word(s, "時"); }
int32_t unitMinute(const struct tm *, char *s) { return word(s, "分"); }
int32_t unitSecond(const struct tm *, char *s) { return word(s, "秒"); }
int32_t slash(const struct tm *, char *s) { return word(s, "/"); }
int32_t colon(const struct tm *, char *s) { return word(s, ":"); }
int32_t hyphen(const struct tm *, char *s) { return word(s, "-"); }
int32_t blank(const struct tm *, char *s) { return word(s, " "); }
int32_t nothing(const struct tm *, char *s) { return word(s, ""); }

}  // namespace

extern "C" const kelTIMETokenRow kelTIMETokenTable[] = {
    {"%yy", 0, year},       {"%mm", 0, month},      {"%dd", 0, day},
    {"%hh", 0, hour},       {"%nn", 0, minute},     {"%SM", 0, monthName},
    {"%KY", 1, unitYear},   {"%KM", 1, unitMonth},  {"%KD", 1, unitDay},
    {"%KH", 1, unitHour},   {"%KN", 1, unitMinute}, {"%KS", 1, unitSecond},
    {"%ss", 0, second},     {"%YY", 0, shortYear},  {"%HH", 0, hour12},
    {"%AP", 0, ampm},       {"%KR", 0, ampmWord},   {"%CS", 1, slash},
    {"%CC", 1, colon},      {"%CH", 1, hyphen},     {"%CP", 1, blank},
    {"%CN", 0, nothing},    {nullptr, 0, nullptr},
};

extern "C" const kelTIMETokenRow *kelTIMEFindToken(const char *position) {
  for (const kelTIMETokenRow *row = kelTIMETokenTable; row->token; row++)
    if (strncmp(position, row->token, strlen(row->token)) == 0) return row;
  return nullptr;
}
