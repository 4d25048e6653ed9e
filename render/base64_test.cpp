// render/base64_test.cpp: strict base64 decoding.
#include "render/base64.h"

#include <gtest/gtest.h>

namespace nurel {
namespace {

TEST(Base64, DecodesPaddedAndUnpaddedGroups) {
  EXPECT_EQ("", decodeBase64("").value());
  EXPECT_EQ("f", decodeBase64("Zg==").value());
  EXPECT_EQ("fo", decodeBase64("Zm8=").value());
  EXPECT_EQ("foo", decodeBase64("Zm9v").value());
  EXPECT_EQ("foobar", decodeBase64("Zm9vYmFy").value());
  EXPECT_EQ(std::string("\x89PNG\r\n\x1a\n", 8), decodeBase64("iVBORw0KGgo=").value());
  EXPECT_EQ(std::string("\xff\xfe", 2), decodeBase64("//4=").value());
  EXPECT_EQ(std::string("\xfb\xef", 2), decodeBase64("++8=").value());
}

TEST(Base64, RefusesAnythingElse) {
  for (const char* bad : {"Zg", "Zg=", "Zm9", "Z===", "====", "Zg==Zg==", "Zm 9v", "Zm9v\n", "Zm9-",
                          "Zm9_", "Z=9v", "Zm=v", "not base64!"})
    EXPECT_FALSE(decodeBase64(bad).has_value()) << bad;
}

}  // namespace
}  // namespace nurel
