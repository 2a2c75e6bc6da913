// A test fixture that fails a test whose calls didn't give back every block
// of the host's memory pool that they took.
#pragma once

#include <gtest/gtest.h>

#include "kelhost.h"

namespace kt {

class PoolGuard : public ::testing::Test {
 protected:
  void SetUp() override {
    kelHostPoolFailAt(0);
    before_ = {kelHostPoolBlocksInUse(), kelHostPoolBytesInUse()};
  }
  void TearDown() override {
    kelHostPoolFailAt(0);
    EXPECT_EQ(std::make_pair(kelHostPoolBlocksInUse(), kelHostPoolBytesInUse()), before_) << "leaked";
  }
  std::pair<size_t, size_t> before_;
};

}  // namespace kt
