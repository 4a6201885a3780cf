#include <gtest/gtest.h>

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
}

TEST(Text, SplitKeepsEmptyParts) {
  EXPECT_EQ(split("a,,b", ','), (std::vector<std::string_view>{"a", "", "b"}));
  EXPECT_EQ(split("", ','), (std::vector<std::string_view>{""}));
}

}  // namespace
}  // namespace corvid
