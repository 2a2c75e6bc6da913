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
    blocksBefore_ = kelHostPoolBlocksInUse();
    bytesBefore_ = kelHostPoolBytesInUse();
  }
  void TearDown() override {
    kelHostPoolFailAt(0);
    EXPECT_EQ(kelHostPoolBlocksInUse(), blocksBefore_) << "blocks leaked";
    EXPECT_EQ(kelHostPoolBytesInUse(), bytesBefore_) << "bytes leaked";
  }

 private:
  size_t blocksBefore_ = 0;
  size_t bytesBefore_ = 0;
};

}  // namespace kt
