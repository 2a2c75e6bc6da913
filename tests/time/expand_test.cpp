// The token expansion alone, on a time record of the test's making.

#include <string.h>

#include <string>

#include <gtest/gtest.h>

#include "kel_status.h"
#include "keltime.h"
#include "time/kel_time_internal.h"
#include "time_support.h"

namespace {

using Expand = kt::TimeTest;

struct Out {
  kelResult result;
  std::string text;
};

Out Expanded(const struct tm &record, const char *format, uint32_t length = 64) {
  char buffer[300] = {};
  EXPECT_LE(length, sizeof buffer);
  kelResult result = kelTIMEExpandFormat(&record, format, length, buffer);
  return {result, buffer};
}

TEST_F(Expand, PercentThatStartsNoTokenIsAPlainCharacter) {
  Out out = Expanded(kt::Moment(), "100%x %%yy%y");
  EXPECT_EQ(out.result, KEL_OK);
  EXPECT_EQ(out.text, "100%x %2024%y");
  EXPECT_EQ(kelTIMEFindToken("%y"), nullptr) << "a token cut short by the end";
}

TEST_F(Expand, WideYearCountsInFull) {
  struct tm record = kt::Moment(15, 12345);
  EXPECT_EQ(Expanded(record, "%yy", 6).text, "12345");
  Out out = Expanded(record, "%yy", 5);
  EXPECT_EQ(out.result, KEL_TIME_ERR_BUFFER);
  EXPECT_EQ(out.text, "");
}

TEST_F(Expand, ShortYearIsTheLastTwoDigits) {
  const struct {
    int year;
    const char *text;
  } years[] = {{2024, "24"}, {2000, "00"}, {1899, "99"}};
  for (const auto &y : years) {
    SCOPED_TRACE(y.year);
    EXPECT_EQ(Expanded(kt::Moment(15, y.year), "%YY").text, y.text);
  }
}

TEST_F(Expand, ExtremeYearDoesNotOverflow) {
  struct tm record = kt::Moment();
  record.tm_year = 0x7fffffff;
  EXPECT_EQ(Expanded(record, "%yy").text, "2147485547");
}

TEST_F(Expand, MonthNameComesFromTheMessageOfTheMonth) {
  ASSERT_EQ(kelHostMessageSet(KEL_MESSAGE_MONTH_LAST, "December"), 0);
  std::string longest(63, 'm');
  ASSERT_EQ(kelHostMessageSet(KEL_MESSAGE_MONTH_FIRST, longest.c_str()), 0);
  const struct {
    int month;
    std::string text;
  } months[] = {{0, longest}, {2, "Mar"}, {11, "December"}, {12, ""}, {-1, ""}};
  for (const auto &m : months) {
    SCOPED_TRACE(m.month);
    struct tm record = kt::Moment();
    record.tm_mon = m.month;
    Out out = Expanded(record, "<%SM>", 100);
    EXPECT_EQ(out.result, KEL_OK);
    EXPECT_EQ(out.text, "<" + m.text + ">");
  }
}

TEST_F(Expand, EveryTokenOfTheTableExpands) {
  struct tm record = kt::Moment(23);
  Out out = Expanded(record,
                "%yy%mm%dd%hh%nn%SM%KY%KM%KD%KH%KN%KS%ss%YY%HH%AP%KR%CS%CC%CH%CP%CN",
                100);
  EXPECT_EQ(out.result, KEL_OK);
  EXPECT_EQ(out.text, "202403052307Mar年月日時分秒092411PM午後/:- ");
}

}  // namespace
