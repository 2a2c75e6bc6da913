// Shared by the date and time tests: a fixed zone, fresh host settings, and
// the moment 5 March 2024 15:07:09 local time at any hour.
#pragma once

#include <stdlib.h>
#include <string.h>
#include <time.h>

#include "kelhost.h"
#include "pool_guard.h"

namespace kt {

class TimeTest : public PoolGuard {
 protected:
  void SetUp() override {
    PoolGuard::SetUp();
    setenv("TZ", "UTC0", 1);
    tzset();
    kelHostStatusReset();
  }
  void TearDown() override {
    kelHostStatusReset();
    PoolGuard::TearDown();
  }
};

inline struct tm Moment(int hour = 15, int year = 2024) {
  struct tm record;
  memset(&record, 0, sizeof record);
  record.tm_year = year - 1900;
  record.tm_mon = 2;
  record.tm_mday = 5;
  record.tm_hour = hour;
  record.tm_min = 7;
  record.tm_sec = 9;
  return record;
}

inline time_t MomentTime(int hour = 15) {
  struct tm record = Moment(hour);
  return mktime(&record);
}

}  // namespace kt
