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

TEST(ErrorCodesTest, ExceptionIsAValueWithCodeAndMessage) {
  CDfrgException nullMessage(-1, static_cast<const char*>(nullptr));
  EXPECT_EQ(nullMessage.code, -1);
  EXPECT_EQ(nullMessage.message, "");
  CDfrgException original(2, std::string("Couldn't load config from Registry"));
  CDfrgException copy = original;
  EXPECT_EQ(copy.code, 2);
  EXPECT_EQ(copy.message, "Couldn't load config from Registry");
  try {
    throw copy;
  } catch (CDfrgException e) {
    EXPECT_EQ(e.message, original.message);
  }
}

}  // namespace
}  // namespace glidewell
