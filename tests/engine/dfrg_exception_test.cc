#include <gtest/gtest.h>

#include "engine/dfrg_exception.h"

namespace glidewell {
namespace {

TEST(ErrorCodesTest, NamesAndNumbers) {
  EXPECT_EQ(errorName(-21), "ErrorNoVolumesSelected");
  EXPECT_EQ(errorName(87), "ErrorInvalidParameter");
  EXPECT_EQ(errorName(-2), "ErrorStopRequested");
  EXPECT_EQ(errorName(-12), "-12");  // unnamed engine code
  EXPECT_EQ(errorName(32), "32");   // Win32 number without a name here
  EXPECT_EQ(errorName(0), "0");
}

}  // namespace
}  // namespace glidewell
