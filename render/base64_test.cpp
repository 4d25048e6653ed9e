// render/base64_test.cpp: strict base64 decoding.
#include "render/base64.h"

#include <gtest/gtest.h>

#include <random>

#include "tests/run_nurel.h"

namespace nurel {
namespace {

using nurel::testing::encodedBase64;

// Texts that are not strict base64: unpadded, overpadded, spaced, or with other characters.
const char* const refused[] = {"Zg",     "Zg=",  "Zm9",  "Z===", "====", "Zg==Zg==",   "Zm 9v",
                               "Zm9v\n", "Zm9-", "Zm9_", "Z=9v", "Zm=v", "not base64!"};

// `length` bytes from `random`.
std::string randomBytes(std::mt19937& random, size_t length) {
  std::string bytes(length, '\0');
  for (auto& byte : bytes) byte = char(random());
  return bytes;
}

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
  for (const char* bad : refused) EXPECT_FALSE(decodeBase64(bad).has_value()) << bad;
}

TEST(Base64, DecodesEveryLengthAndByte) {
  std::mt19937 random(7);
  for (size_t length = 0; length < 300; ++length) {
    std::string bytes = randomBytes(random, length);
    EXPECT_EQ(bytes, decodeBase64(encodedBase64(bytes)).value()) << length;
  }
}

TEST(Base64, ABadCharacterAnywhereIsRefused) {
  // Long enough for several steps of 32 characters, the way large images are decoded.
  std::string text = encodedBase64(std::string(150, 'x'));
  for (size_t at = 0; at < text.size(); ++at)
    for (char bad : {'-', '_', ' ', '\n', '\0', '\xff', '.'}) {
      std::string broken = text;
      broken[at] = bad;
      EXPECT_FALSE(decodeBase64(broken).has_value()) << at << " " << int(bad);
    }
}

// In place, the same text gives the same bytes, or the same refusal.
std::optional<std::string> decodedInPlace(std::string text) {
  if (!decodeBase64InPlace(text)) return std::nullopt;
  return text;
}

TEST(Base64, DecodesLongTextsOfEveryLengthAndByte) {
  std::mt19937 random(5);
  std::string bytes = randomBytes(random, 70000);
  for (size_t length : {size_t(24), size_t(33), size_t(36), size_t(47), size_t(48), size_t(49),
                        size_t(1000), size_t(4096), size_t(65535), size_t(70000)}) {
    std::string part = bytes.substr(0, length);
    EXPECT_EQ(part, decodeBase64(encodedBase64(part)).value()) << length;
  }
}

TEST(Base64, EveryByteOutsideTheAlphabetIsRefusedAtEveryPlaceOfAStep) {
  const std::string alphabet =
      "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
  std::string text = encodedBase64(std::string(150, 'x'));
  for (int byte = 0; byte < 256; ++byte) {
    if (alphabet.find(char(byte)) != std::string::npos) continue;
    for (size_t at = 0; at < 64; ++at) {
      std::string broken = text;
      broken[at] = char(byte);
      EXPECT_FALSE(decodeBase64(broken).has_value()) << at << " " << byte;
    }
  }
}

// Every character of the alphabet, at every place in a group and in a step of 32.
TEST(Base64, DecodesEveryCharacterAtEveryPlace) {
  const std::string alphabet =
      "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
  for (size_t shift = 0; shift < 64; ++shift) {
    std::string text = alphabet.substr(shift) + alphabet.substr(0, shift);
    text += text;
    std::string bytes = decodeBase64(text).value();
    EXPECT_EQ(text, encodedBase64(bytes)) << shift;
  }
}

TEST(Base64, DecodingInPlaceGivesTheSameBytes) {
  std::mt19937 random(11);
  for (size_t length = 0; length < 300; ++length) {
    std::string bytes = randomBytes(random, length);
    EXPECT_EQ(bytes, decodedInPlace(encodedBase64(bytes)).value()) << length;
  }
  std::string bytes = randomBytes(random, 70000);
  EXPECT_EQ(bytes, decodedInPlace(encodedBase64(bytes)).value());
  EXPECT_EQ(std::string("\x89PNG\r\n\x1a\n", 8), decodedInPlace("iVBORw0KGgo=").value());
}

TEST(Base64, DecodingInPlaceRefusesWhatDecodingRefuses) {
  for (const char* bad : refused) EXPECT_FALSE(decodedInPlace(bad).has_value()) << bad;
  std::string text = encodedBase64(std::string(150, 'x'));
  for (size_t at = 0; at < text.size(); ++at) {
    std::string broken = text;
    broken[at] = '-';
    EXPECT_FALSE(decodedInPlace(broken).has_value()) << at;
  }
}

TEST(Base64, TheScalarLoopAgreesWithTheWideOne) {
  std::mt19937 random(17);
  std::string bytes = randomBytes(random, 70000);
  for (size_t length : {size_t(0), size_t(47), size_t(48), size_t(4096), size_t(70000)}) {
    std::string text = encodedBase64(bytes.substr(0, length)), scalar = text;
    ASSERT_TRUE(decodeBase64InPlaceScalar(scalar)) << length;
    EXPECT_EQ(decodedInPlace(text).value(), scalar) << length;
  }
  std::string broken = encodedBase64(bytes.substr(0, 4096));
  broken[3000] = '-';
  EXPECT_FALSE(decodeBase64InPlaceScalar(broken));
}

}  // namespace
}  // namespace nurel
