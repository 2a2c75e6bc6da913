// Date and time strings: the exported call from the argument checks and the
// device's setting to the text within its byte budget, and the tokens alone.

#include <stdlib.h>
#include <string.h>

#include <gtest/gtest.h>

#include "kel_status.h"
#include "kelhost.h"
#include "pool_guard.h"
#include "time/time_internal.h"

namespace {

using Time = kt::PoolGuard;

// 5 March 2024 15:07:09 UTC at another hour or year.
struct tm moment(int hour = 15, int year = 2024) { return {9, 7, hour, 5, 2, year - 1900, 0, 0, 0, 0, nullptr}; }

// The device's setting byte (-1: not set), the call's arguments, the result
// and the text: whole fields within the byte budget, the argument checks in
// the order length, form, order, options. The bytes behind the text are
// zero, those behind the buffer untouched.
TEST_F(Time, DayTimeStrings) {
  setenv("TZ", "UTC0", 1);
  struct Row { int setting, form; uint32_t word, length; int hour; kelResult result; const char *text; };
  const Row rows[] = {
      {-1, 1, 0x03002, 64, 15, 0, "03-05-24 15:07"},
      {-1, 1, 0x10804, 64, 15, 0, "05/03/2024 03:07:09PM"},
      {-1, 4, 0x10401, 64, 12, 0, "2024年03月05日 午後00時07分09秒"},
      {-1, 4, 0x00402, 64, 11, 0, "03月05日2024年 午前11時07分"},
      {-1, 4, 0x18401, 64, 15, 0, "20240305午後030709"},
      {-1, 1, 0x1A001, 64, 0, 0, "20240305000709"},
      {-1, 1, 0x08001, 64, 15, 0, "202403051507"},
      {-1, 2, 0x04202, 64, 15, 0, "Mar 05 2024"},
      {-1, 1, 0x80020101, 64, 15, 0, "15:07"},
      {0x00, 0, 0x000, 64, 15, 0, "2024/03/05 15:07"},
      {0x21, 0, 0x000, 64, 15, 0, "05/Mar/2024 15:07"},
      {0x12, 0, 0x200, 64, 15, 0, "03月05日2024年"},
      {0x03, 0, 0x001, 64, 15, KEL_TIME_ERR_SETTING, ""},
      {-1, 3, 0x0303, 0, 15, KEL_TIME_ERR_BUFFER, ""},
      {-1, 3, 0x0003, 16, 15, KEL_TIME_ERR_FORM, ""},
      {-1, 1, 0x0303, 16, 15, KEL_TIME_ERR_ORDER, ""},
      {-1, 1, 0x0c01, 16, 15, KEL_TIME_ERR_OPTIONS, ""},
      {-1, 1, 0x001, 17, 15, 0, "2024/03/05 15:07"},
      {-1, 1, 0x001, 16, 15, KEL_TIME_ERR_BUFFER, "2024/03/05 15:"},
      {-1, 4, 0x501, 16, 15, KEL_TIME_ERR_BUFFER, "午後03時07"},
  };
  for (const auto &r : rows) {
    kelHostStatusReset();
    if (r.setting >= 0) kelHostStatusSetNumber(KEL_STATUS_DATE_FORM, r.setting);
    struct tm t = moment(r.hour);
    char memory[96];
    memset(memory, 'x', sizeof memory);
    EXPECT_EQ(kelTIMEGetDayTimeStr(mktime(&t), r.form, r.word, r.length, memory), r.result) << r.word;
    std::string inside(memory, r.length), outside(memory + r.length, sizeof memory - r.length);
    EXPECT_STREQ(inside.c_str(), r.text);
    EXPECT_EQ(inside.find_first_not_of('\0', strlen(r.text)), std::string::npos);
    EXPECT_EQ(outside, std::string(outside.size(), 'x'));
  }
}

std::string expand(const struct tm &t, const char *format, uint32_t length = 100) {
  char buffer[128] = {};
  kelResult r = kelTIMEExpandFormat(&t, format, length, buffer);
  return r == KEL_OK ? buffer : "error " + std::string(buffer);
}

// Every token, month names from the status service's messages (empty when
// it fails or the month is out of range), years of any width, and '%' that
// starts no token.
TEST_F(Time, Tokens) {
  EXPECT_EQ(expand(moment(23), "%yy%mm%dd%hh%nn%SM%KY%KM%KD%KH%KN%KS%ss%YY%HH%AP%KR%CS%CC%CH%CP%CN"),
            "202403052307Mar年月日時分秒092411PM午後/:- ");
  std::string months;
  for (int m = -1; m <= 12; m++) {
    struct tm t = moment();
    t.tm_mon = m;
    months += expand(t, "%SM.");
  }
  EXPECT_EQ(months, ".Jan.Feb.Mar.Apr.May.Jun.Jul.Aug.Sep.Oct.Nov.Dec..");
  kelHostMessageFail(KEL_MESSAGE_MONTH_FIRST + 2, 7);
  EXPECT_EQ(expand(moment(), "<%SM>"), "<>");
  EXPECT_EQ(expand(moment(15, 2000), "%YY %yy") + expand(moment(15, 1899), " %YY"), "00 2000 99");
  EXPECT_EQ(expand(moment(0, 12345), "%yy %HH%AP"), "12345 00AM");
  EXPECT_EQ(expand(moment(0, 12345), "%yy", 5), "error ");
  struct tm t = moment();
  t.tm_year = 0x7fffffff;
  EXPECT_EQ(expand(t, "100%x %%yy%y"), "100%x %2147485547%y");
}

}  // namespace
