// cli/fail_test.cpp: the one error exit.
#include "cli/fail.h"

#include <gtest/gtest.h>

namespace nurel {
namespace {

TEST(Fail, WritesTheMessageAndExitsWithStatusOne) {
  EXPECT_EXIT(fail("no PDF"), ::testing::ExitedWithCode(1), "^no PDF\n$");
}

TEST(Fail, KeepsMultiLineMessagesWhole) {
  EXPECT_EXIT(fail("Usage: a\n  b"), ::testing::ExitedWithCode(1), "^Usage: a\n  b\n$");
}

}  // namespace
}  // namespace nurel
