#include <gtest/gtest.h>

#include <array>

#include "base/Text.h"

namespace corvid {
namespace {

TEST(Text, RefusesIllFormedUTF8) {
  EXPECT_TRUE(isValidUTF8("gr\xC3\xBC\xC3\x9F"));
  EXPECT_TRUE(isValidUTF8("\xF0\x9F\x98\x80"));
  EXPECT_FALSE(isValidUTF8("\xC3"));              // cut off
  EXPECT_FALSE(isValidUTF8("\xC0\x80"));          // overlong
  EXPECT_FALSE(isValidUTF8("\xE0\x80\x80"));      // overlong
  EXPECT_FALSE(isValidUTF8("\xED\xA0\x80"));      // surrogate
  EXPECT_FALSE(isValidUTF8("\xF4\x90\x80\x80"));  // above U+10FFFF
  EXPECT_FALSE(isValidUTF8("\x80"));
}

TEST(Text, FindsAByteThatIsNoASCIIWhereverItStands) {
  for (std::size_t length = 0; length < 20; ++length) {
    std::string text(length, 'x');
    EXPECT_TRUE(isASCII(text));
    EXPECT_TRUE(isValidUTF8(text));
    for (char& c : text) {
      c = '\xFF';
      EXPECT_FALSE(isASCII(text)) << text;
      EXPECT_FALSE(isValidUTF8(text)) << text;
      c = 'x';
    }
  }
}

TEST(Text, ReplacesIllFormedSequences) {
  EXPECT_EQ(replacingInvalidUTF8("a\xFFz"), "a\xEF\xBF\xBDz");
  EXPECT_EQ(replacingInvalidUTF8("\xC3"), "\xEF\xBF\xBD");
}

TEST(Text, CountsUTF16Units) {
  EXPECT_EQ(utf16Length("abc"), 3u);
  EXPECT_EQ(utf16Length("\xC3\xA9"
                        "1"),
            2u);
  EXPECT_EQ(utf16Length("\xF0\x9F\x98\x80"), 2u);
}

TEST(Text, BecomesUTF16WithSurrogatePairsAndReplacements) {
  EXPECT_EQ(utf16("a\u00e9\uffff\U00010000\U0010ffff"), u"a\u00e9\uffff\U00010000\U0010ffff");
  EXPECT_EQ(utf16("x\xff"
                  "y"),
            u"x\ufffdy");
}

TEST(Text, AppendsCharactersOfEveryLength) {
  std::string text;
  for (const char32_t character : {U'a', U'\u00e9', U'\u65e5', U'\U0001F600'})
    appendUTF8(text, character);
  EXPECT_EQ(text, "a\u00e9\u65e5\U0001F600");
}

TEST(Text, LowerCasesBeyondASCIIWhateverTheLocale) {
  EXPECT_EQ(lowerCased("FOO \xC3\x84\xCE\xA3"), "foo \xC3\xA4\xCF\x83");
}

TEST(Text, ComparesIgnoringCase) {
  EXPECT_TRUE(equalsIgnoringCase("userName", "USERNAME"));
  EXPECT_FALSE(equalsIgnoringCase("abc", "abcd"));
  EXPECT_TRUE(equalsIgnoringCase("\xC3\x84", "\xC3\xA4"));
  EXPECT_TRUE(equalsIgnoringCase("\xCF\x82", "\xCE\xA3"));  // final sigma and capital sigma
  EXPECT_FALSE(equalsIgnoringCase("\xC3\x9F", "ss"));       // simple folding keeps the length
}

TEST(Text, FindsIgnoringCaseAndNeverAnEmptyNeedle) {
  EXPECT_TRUE(containsIgnoringCase("xABCy", "abc"));
  EXPECT_FALSE(containsIgnoringCase("abc", "xABCy"));
  EXPECT_FALSE(containsIgnoringCase("abc", ""));
  EXPECT_FALSE(containsIgnoringCase("", "a"));
  EXPECT_TRUE(containsIgnoringCase("AAB", "aab"));
  EXPECT_TRUE(containsIgnoringCase("aaAB", "aB"));
  EXPECT_TRUE(containsIgnoringCase("x\xC3\x84y", "\xC3\xA4Y"));
  EXPECT_TRUE(containsIgnoringCase("x\xC3\x84y", "Y"));
  EXPECT_FALSE(containsIgnoringCase("xay", "\xC3\xA4"));
}

TEST(Text, TellsASCII) {
  EXPECT_TRUE(isASCII(std::string_view("\0a~\x7F", 4)));
  EXPECT_FALSE(isASCII("gr\u00fcn"));
  EXPECT_TRUE(isASCII(""));
}

TEST(Text, TellsASCIILettersAndDigits) {
  std::string found;
  for (int c = 0; c < 256; ++c)
    if (isASCIILetterOrDigit(static_cast<char>(c))) found.push_back(static_cast<char>(c));
  EXPECT_EQ(found, "0123456789ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz");
}

TEST(Text, IsTrimmedOfBlanksAtBothEndsOnly) {
  EXPECT_EQ(trimmed(" \t a b\r\n"), "a b");
  EXPECT_EQ(trimmed("a"), "a");
  EXPECT_EQ(trimmed(" \r\n\t"), "");
  EXPECT_EQ(trimmed(""), "");
}

TEST(Text, BytesBecomeTwoDigitsEach) {
  const std::array<std::uint8_t, 3> bytes{0x00, 0x9F, 0xFF};
  EXPECT_EQ(hexadecimal(bytes), "009fff");
  EXPECT_EQ(hexadecimal(std::string_view("\x0A\xB1")), "0ab1");
  EXPECT_EQ(upperCaseHexadecimal("\x0A\xB1"), "0AB1");
  EXPECT_EQ(hexadecimal(""), "");
}

TEST(Text, PairsOfDigitsBecomeBytes) {
  EXPECT_EQ(bytesFromHexadecimal("0aB1"), "\x0A\xB1");
  EXPECT_EQ(bytesFromHexadecimal(""), "");
  for (const char* wrong : {"0", "0ab", "0g", "g0", "+1", "-1", " 1", "0x"})
    EXPECT_EQ(bytesFromHexadecimal(wrong), std::nullopt) << wrong;
}

TEST(Text, SplitKeepsEmptyParts) {
  EXPECT_EQ(split("a,,b", ','), (std::vector<std::string_view>{"a", "", "b"}));
  EXPECT_EQ(split("", ','), (std::vector<std::string_view>{""}));
}

}  // namespace
}  // namespace corvid
