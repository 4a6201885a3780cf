#include <gtest/gtest.h>

#include <limits>

#include "base/Reading.h"

namespace corvid {
namespace {

TEST(Reading, TextGivesItsLeadingDigits) {
  EXPECT_EQ(integerFromText("600"), 600);
  EXPECT_EQ(integerFromText("  -12abc"), -12);
  EXPECT_EQ(integerFromText("+7"), 7);
  EXPECT_EQ(integerFromText("abc"), 0);
  EXPECT_EQ(integerFromText(""), 0);
  EXPECT_EQ(integerFromText("- 5"), 0);
}

TEST(Reading, TextOutsideTheRangeSaturates) {
  EXPECT_EQ(integerFromText("9223372036854775807"), std::numeric_limits<std::int64_t>::max());
  EXPECT_EQ(integerFromText("9223372036854775808"), std::numeric_limits<std::int64_t>::max());
  EXPECT_EQ(integerFromText("-9223372036854775808"), std::numeric_limits<std::int64_t>::min());
  EXPECT_EQ(integerFromText("-99999999999999999999"), std::numeric_limits<std::int64_t>::min());
}

TEST(Reading, IntegersComeFromNumbersBooleansAndText) {
  const Dictionary d{{"i", 5}, {"r", -2.9}, {"b", true}, {"s", "42 apples"}, {"a", Array{}}};
  EXPECT_EQ(integerAt(d, "i"), 5);
  EXPECT_EQ(integerAt(d, "r"), -2);
  EXPECT_EQ(integerAt(d, "b"), 1);
  EXPECT_EQ(integerAt(d, "s"), 42);
  EXPECT_FALSE(integerAt(d, "a"));
  EXPECT_FALSE(integerAt(d, "missing"));
  EXPECT_EQ(int32At(d, "missing"), 0);
}

TEST(Reading, RealsOutsideTheRangeSaturateAndNotANumberIsZero) {
  const Value big(1e300), small(-1e300), nan(std::numeric_limits<double>::quiet_NaN());
  EXPECT_EQ(asInteger(&big), std::numeric_limits<std::int64_t>::max());
  EXPECT_EQ(asInteger(&small), std::numeric_limits<std::int64_t>::min());
  EXPECT_EQ(asInteger(&nan), 0);
}

TEST(Reading, ThirtyTwoBitReadsTakeTheLowBits) {
  EXPECT_EQ(int32At(Dictionary{{"k", 0x1'0000'0005}}, "k"), 5);
}

TEST(Reading, BooleansComeFromBooleansAndNumbersOnly) {
  const Dictionary d{{"t", true}, {"n", 2}, {"z", 0.0}, {"s", "true"}};
  EXPECT_TRUE(booleanAt(d, "t"));
  EXPECT_TRUE(booleanAt(d, "n"));
  EXPECT_FALSE(booleanAt(d, "z"));
  EXPECT_FALSE(booleanAt(d, "s"));
  EXPECT_FALSE(asBoolean(d.find("s")));
}

TEST(Reading, ContainersAndTextOfAnotherTypeAreAbsent) {
  const Dictionary d{{"s", "x"}, {"n", 1}};
  EXPECT_NE(stringAt(d, "s"), nullptr);
  EXPECT_EQ(stringAt(d, "n"), nullptr);
  EXPECT_EQ(arrayAt(d, "s"), nullptr);
  EXPECT_EQ(dictionaryAt(d, "s"), nullptr);
}

TEST(AssignedValue, IsFoundByItsWholeName) {
  const std::string_view text = "VERSION=\"12 (x)\"\nVERSION_ID=\"12\"\nID=debian\n";
  EXPECT_EQ(assignedValue(text, "VERSION_ID"), "12");
  EXPECT_EQ(assignedValue(text, "VERSION"), "12 (x)");
  EXPECT_EQ(assignedValue(text, "ID"), "debian");
  EXPECT_EQ(assignedValue(text, "BUILD_ID"), std::nullopt);
}

TEST(AssignedValue, LosesItsQuotesAndBackslashes) {
  EXPECT_EQ(assignedValue("A='x \"y\" \\z'", "A"), "x \"y\" \\z");
  EXPECT_EQ(assignedValue("A=\"x \\\"y\\\" 'z'\"", "A"), "x \"y\" 'z'");
  EXPECT_EQ(assignedValue("A=x\\ y", "A"), "x y");
  EXPECT_EQ(assignedValue("A=\\", "A"), "\\");
}

TEST(AssignedValue, IsTheLastOneAndNoComment) {
  EXPECT_EQ(assignedValue("A=1\n  A=2 \r\n#A=3\n", "A"), "2");
}

TEST(AssignedValue, ThatIsEmptyIsNone) {
  EXPECT_EQ(assignedValue("A=", "A"), std::nullopt);
  EXPECT_EQ(assignedValue("A=\"\"", "A"), std::nullopt);
  EXPECT_EQ(assignedValue("A", "A"), std::nullopt);
  EXPECT_EQ(assignedValue("", "A"), std::nullopt);
}

}  // namespace
}  // namespace corvid
