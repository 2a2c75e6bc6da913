// kelTIMEGetDayTimeStr: format selection and composition, the order of the
// argument checks, the device's setting, and the byte budget of the text.

#include <string.h>

#include <string>

#include <gtest/gtest.h>

#include "kel_status.h"
#include "keltime.h"
#include "time/kel_time_internal.h"
#include "time_support.h"

namespace {

using kt::MomentTime;

struct Call {
  kelResult result;
  std::string text;
};

// One call with a buffer of `length` bytes inside a larger one, whose tail
// must come back untouched.
Call Render(int32_t form, uint32_t word, uint32_t length = 64, int hour = 15) {
  char memory[96];
  memset(memory, 'x', sizeof memory);
  kelResult result = kelTIMEGetDayTimeStr(MomentTime(hour), form, word, length, memory);
  for (size_t i = length; i < sizeof memory; i++)
    EXPECT_EQ(memory[i], 'x') << "byte " << i << " behind the buffer was written";
  if (length == 0) return {result, std::string(memory, 4)};
  EXPECT_NE(memchr(memory, 0, length), nullptr) << "no NUL";
  std::string text(memory);
  for (size_t i = text.size(); i < length; i++)
    EXPECT_EQ(memory[i], 0) << "byte " << i << " behind the text isn't zero";
  return {result, text};
}

using DayTime = kt::TimeTest;

struct Example {
  int32_t form;
  uint32_t word;
  const char *format;
  const char *output;
};

TEST_F(DayTime, ComposesAndRendersEachExample) {
  const Example examples[] = {
      {1, 0x00001, "%yy%CS%mm%CS%dd %hh%CC%nn", "2024/03/05 15:07"},
      {1, 0x03002, "%mm%CH%dd%CH%YY %hh%CC%nn", "03-05-24 15:07"},
      {2, 0x10804, "%dd%CS%SM%CS%yy %HH%CC%nn%CC%ss%AP", "05/Mar/2024 03:07:09PM"},
      {4, 0x10401, "%yy%KY%mm%KM%dd%KD %KR%HH%KH%nn%KN%ss%KS",
       "2024年03月05日 午後03時07分09秒"},
      {1, 0x08001, "%yy%CN%mm%CN%dd%hh%CN%nn", "202403051507"},
      {4, 0x00102, "%hh%KH%nn%KN", "15時07分"},
      {4, 0x00202, "%mm%KM%dd%KD%yy%KY", "03月05日2024年"},
      // The marker behind the time brings no seconds of its own.
      {1, 0x00801, "%yy%CS%mm%CS%dd %HH%CC%nn%AP", "2024/03/05 03:07PM"},
      {4, 0x00801, "%yy%KY%mm%KM%dd%KD %HH%KH%nn%KN%KR", "2024年03月05日 03時07分午後"},
      {1, 0x04001, "%yy%CP%mm%CP%dd %hh%CC%nn", "2024 03 05 15:07"},
      {4, 0x02001, "%yy%KY%mm%KM%dd%KD %hh%KH%nn%KN", "2024年03月05日 15時07分"},
      {1, 0x00601, "%yy%CS%mm%CS%dd", "2024/03/05"},
      // Without separators the markers stay, right behind the date.
      {1, 0x08401, "%yy%CN%mm%CN%dd%AP%HH%CN%nn", "20240305PM0307"},
      {4, 0x18401, "%yy%CN%mm%CN%dd%CN%KR%HH%CN%nn%CN%ss%CN", "20240305午後030709"},
      {1, 0x1A001, "%yy%CN%mm%CN%dd%hh%CN%nn%CN%ss", "20240305150709"},
      // Bits outside the table have no effect.
      {1, 0x80020101, "%hh%CC%nn", "15:07"},
  };
  for (const Example &e : examples) {
    SCOPED_TRACE(e.format);
    const char *format = kelTIMEComposeFormat(e.form, static_cast<int32_t>(e.word & 0xff),
                                              e.word & KEL_TIME_OPTIONS_MASK);
    ASSERT_NE(format, nullptr);
    EXPECT_STREQ(format, e.format);
    Call call = Render(e.form, e.word);
    EXPECT_EQ(call.result, KEL_OK);
    EXPECT_EQ(call.text, e.output);
  }
}

TEST_F(DayTime, NoRowForAFormOrOrderOutsideTheTable) {
  EXPECT_EQ(kelTIMEComposeFormat(3, 1, 0), nullptr);
  EXPECT_EQ(kelTIMEComposeFormat(1, 0, 0), nullptr);
}

struct Budget {
  int32_t form;
  uint32_t word;
  uint32_t length;
  kelResult result;
  const char *text;
};

TEST_F(DayTime, KeepsWholeFieldsWithinTheBudget) {
  const Budget budgets[] = {
      {1, 0x001, 17, KEL_OK, "2024/03/05 15:07"},
      {1, 0x001, 16, KEL_TIME_ERR_BUFFER, "2024/03/05 15:"},
      {1, 0x001, 5, KEL_TIME_ERR_BUFFER, "2024"},
      {1, 0x001, 4, KEL_TIME_ERR_BUFFER, ""},
      {1, 0x001, 1, KEL_TIME_ERR_BUFFER, ""},
      // Empty tokens at the end are reached only with more than one byte free.
      {4, 0x8201, 9, KEL_TIME_ERR_BUFFER, "20240305"},
      {4, 0x8201, 10, KEL_OK, "20240305"},
      // Lengths are bytes: the marker takes six, each unit word three.
      {4, 0x501, 17, KEL_OK, "午後03時07分"},
      {4, 0x501, 16, KEL_TIME_ERR_BUFFER, "午後03時07"},
      {4, 0x501, 7, KEL_TIME_ERR_BUFFER, "午後"},
      {4, 0x501, 6, KEL_TIME_ERR_BUFFER, ""},
  };
  for (const Budget &b : budgets) {
    SCOPED_TRACE(testing::Message() << "word 0x" << std::hex << b.word << std::dec
                                    << ", length " << b.length);
    Call call = Render(b.form, b.word, b.length);
    EXPECT_EQ(call.result, b.result);
    EXPECT_EQ(call.text, b.text);
  }
}

TEST_F(DayTime, FailedMonthNameLeavesTheSeparatorsSideBySide) {
  ASSERT_EQ(kelHostMessageFail(KEL_MESSAGE_MONTH_FIRST + 2, 7), 0);
  Call call = Render(2, KEL_TIME_NO_TIME | KEL_TIME_ORDER_DMY);
  EXPECT_EQ(call.result, KEL_OK);
  EXPECT_EQ(call.text, "05//2024");
}

TEST_F(DayTime, TwelveHourClockRunsFromZeroToEleven) {
  const struct {
    int hour;
    const char *text;
    const char *units;
  } hours[] = {{0, "AM00:07", "午前00時07分"},
               {11, "AM11:07", "午前11時07分"},
               {12, "PM00:07", "午後00時07分"},
               {23, "PM11:07", "午後11時07分"}};
  uint32_t word = KEL_TIME_NO_DATE | KEL_TIME_AMPM_BEFORE | KEL_TIME_ORDER_YMD;
  for (const auto &h : hours) {
    SCOPED_TRACE(h.hour);
    EXPECT_EQ(Render(1, word, 64, h.hour).text, h.text);
    EXPECT_EQ(Render(4, word, 64, h.hour).text, h.units);
  }
}

struct Check {
  int32_t form;
  uint32_t word;
  uint32_t length;
  kelResult result;
};

TEST_F(DayTime, ChecksLengthThenFormThenOrderThenOptions) {
  const Check checks[] = {
      {3, 0x0303, 0, KEL_TIME_ERR_BUFFER},  // length before all
      {3, 0x0003, 16, KEL_TIME_ERR_FORM},   // form before order
      {-1, 0x0001, 16, KEL_TIME_ERR_FORM},
      {8, 0x0001, 16, KEL_TIME_ERR_FORM},
      {1, 0x0303, 16, KEL_TIME_ERR_ORDER},  // order before options
      {1, 0x00ff, 16, KEL_TIME_ERR_ORDER},
      {1, 0x0301, 16, KEL_TIME_ERR_OPTIONS},
      {1, 0x0c01, 16, KEL_TIME_ERR_OPTIONS},
      {4, 0x6001, 16, KEL_TIME_ERR_OPTIONS},
  };
  for (const Check &c : checks) {
    SCOPED_TRACE(testing::Message() << "form " << c.form << ", word 0x" << std::hex << c.word);
    Call call = Render(c.form, c.word, c.length);
    EXPECT_EQ(call.result, c.result);
    // Zeroed after a check failure, untouched for length 0.
    EXPECT_EQ(call.text, c.length == 0 ? "xxxx" : "");
  }
  EXPECT_EQ(kelHostStatusReads(KEL_STATUS_DATE_FORM), 0u);
}

TEST_F(DayTime, ReadsTheSettingOnlyForAValueLeftAtZero) {
  const struct {
    int32_t form;
    uint32_t word;
    unsigned reads;
  } cases[] = {{1, 0x001, 0}, {0, 0x001, 1}, {1, 0x000, 1}, {0, 0x000, 2},
               {1, KEL_TIME_NO_DATE, 1}};
  for (const auto &c : cases) {
    SCOPED_TRACE(testing::Message() << "form " << c.form << ", word 0x" << std::hex << c.word);
    kelHostStatusReset();
    EXPECT_EQ(Render(c.form, c.word).result, KEL_OK);
    EXPECT_EQ(kelHostStatusReads(KEL_STATUS_DATE_FORM), c.reads);
  }
}

TEST_F(DayTime, TakesFormFromTheLowNibbleAndOrderFromTheHigh) {
  const struct {
    uint32_t setting;
    int32_t form;
    uint32_t word;
    kelResult result;
    const char *text;
  } cases[] = {
      {0x00, 0, 0x00, KEL_OK, "2024/03/05 15:07"},
      {0x11, 0, 0x00, KEL_OK, "Mar/05/2024 15:07"},
      {0x21, 0, 0x00, KEL_OK, "05/Mar/2024 15:07"},
      {0x22, 0, 0x00, KEL_OK, "05日03月2024年 15時07分"},
      {0x03, 0, 0x01, KEL_TIME_ERR_SETTING, ""},
      {0x03, 1, 0x00, KEL_OK, "2024/03/05 15:07"},  // low nibble not looked at
      {0x30, 1, 0x00, KEL_TIME_ERR_SETTING, ""},
      {0x30, 0, 0x01, KEL_OK, "2024/03/05 15:07"},  // high nibble not looked at
  };
  for (const auto &c : cases) {
    SCOPED_TRACE(testing::Message() << "setting 0x" << std::hex << c.setting);
    ASSERT_EQ(kelHostStatusSetNumber(KEL_STATUS_DATE_FORM, c.setting), 0);
    Call call = Render(c.form, c.word);
    EXPECT_EQ(call.result, c.result);
    EXPECT_EQ(call.text, c.text);
  }
}

TEST_F(DayTime, HandsOnAFailingStatusReadUnchanged) {
  for (int code : {0x1234, -7}) {
    kelHostStatusReset();
    ASSERT_EQ(kelHostStatusFail(KEL_STATUS_DATE_FORM, code), 0);
    kelResult expected = static_cast<kelResult>(code);
    EXPECT_EQ(Render(0, 0x000).result, expected);
    EXPECT_EQ(kelHostStatusReads(KEL_STATUS_DATE_FORM), 1u) << "stops at the first failure";
    EXPECT_EQ(Render(1, 0x000).result, expected);
    Call call = Render(0, 0x001, 16);
    EXPECT_EQ(call.result, expected);
    EXPECT_EQ(call.text, "");
    // Both given: the service isn't asked.
    EXPECT_EQ(Render(1, 0x001).result, KEL_OK);
  }
}

TEST_F(DayTime, RefusesANullBuffer) {
  EXPECT_EQ(kelTIMEGetDayTimeStr(MomentTime(), 1, 1, 16, nullptr), KEL_TIME_ERR_BUFFER);
}

}  // namespace
