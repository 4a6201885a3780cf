#include <gtest/gtest.h>

#include "platform/data/Crypto.h"

namespace corvid {
namespace {

TEST(Base64, EncodesEveryLengthWithPadding) {
  EXPECT_EQ(base64Encode(""), "");
  EXPECT_EQ(base64Encode("f"), "Zg==");
  EXPECT_EQ(base64Encode("fo"), "Zm8=");
  EXPECT_EQ(base64Encode("foo"), "Zm9v");
  EXPECT_EQ(base64Encode("foobar"), "Zm9vYmFy");
  EXPECT_EQ(base64Encode(std::string_view("\xfb\xff\xfe\x00", 4)), "+//+AA==");
}

TEST(Base64, SixteenBytesGiveTwentyFourCharacters) {
  EXPECT_EQ(base64Encode(std::string(16, '\0')).size(), 24u);
}

TEST(Base64, DecodesWhatItEncodes) {
  std::string bytes;
  for (int i = 0; i < 300; ++i) {
    EXPECT_EQ(base64DecodeIgnoringUnknownCharacters(base64Encode(bytes)), bytes) << i;
    bytes.push_back(static_cast<char>(i));
  }
}

TEST(Base64, LongInputsGoThrough) {
  const std::string bytes((std::size_t{3} << 20) + 5, 'q');
  const std::string text = base64Encode(bytes);
  EXPECT_EQ(text.size(), (bytes.size() + 2) / 3 * 4);
  EXPECT_EQ(base64DecodeIgnoringUnknownCharacters(text), bytes);
}

TEST(Base64, CharactersOutsideTheAlphabetAreSkipped) {
  EXPECT_EQ(base64DecodeIgnoringUnknownCharacters(" Zm9v\r\n\tYm-Fy\x80 "), "foobar");
  EXPECT_EQ(base64DecodeIgnoringUnknownCharacters("Zg=\n="), "f");
}

TEST(Base64, TextWithNothingOfTheAlphabetIsEmptyData) {
  EXPECT_EQ(base64DecodeIgnoringUnknownCharacters(""), "");
  EXPECT_EQ(base64DecodeIgnoringUnknownCharacters("?!"), "");
}

TEST(Base64, IncompleteGroupsAndStrayPaddingAreRefused) {
  for (const char* text : {"Z", "Zg", "Zg=", "Zm9", "Zm9vY", "=",
                           "==", "====", "Z===", "Zg==Zg==", "Zg=a", "Zm9v=", "Zm9v====", "=Zm9"})
    EXPECT_FALSE(base64DecodeIgnoringUnknownCharacters(text)) << text;
}

}  // namespace
}  // namespace corvid
