#include <gtest/gtest.h>

#include "platform/data/PropertyList.h"
#include "tests/platform/data/BinaryListBuilder.h"
#include "tests/platform/data/BothForms.h"

namespace corvid {
namespace {

using namespace std::string_literals;

std::string failureOf(const std::string& bytes, const PropertyListLimits& limits = {}) {
  const Result<Value> result = parsePropertyList(bytes, limits);
  EXPECT_FALSE(result);
  return result ? "" : result.failure().message;
}

Value nested(std::size_t levels) {
  Value value = Array{};
  for (std::size_t level = 1; level < levels; ++level)
    value = level % 2 ? Value(Array{std::move(value)}) : Value(Dictionary{{"k", std::move(value)}});
  return value;
}

// An array of `count` references to the object `number`.
std::string repeated(std::size_t count, std::size_t number, std::size_t referenceSize = 1) {
  std::string object = "\xaf\x12" + bigEndian(count, 4);
  for (std::size_t i = 0; i < count; ++i) object += bigEndian(number, referenceSize);
  return object;
}

TEST(PropertyListLimits, DepthIsHeldToTheLevel) {
  for (const std::string& list : bothForms(nested(32))) EXPECT_TRUE(parsePropertyList(list));
  for (const std::string& list : bothForms(nested(33)))
    EXPECT_EQ(failureOf(list).find("The property list has more than 32 levels"), 0u);
  PropertyListLimits flat;
  flat.depth = 0;
  for (const std::string& list : bothForms(7)) EXPECT_TRUE(parsePropertyList(list, flat));
  for (const std::string& list : bothForms(Array{}))
    EXPECT_EQ(failureOf(list, flat).find("The property list has more than 0 levels"), 0u);
}

TEST(PropertyListLimits, DepthHoldsThroughSharedObjects) {
  // Object 1 is met at level 2 first, then again at level 3, where its own two no longer fit in 4.
  const BinaryList list{{"\xa2\x01\x03", "\xa1\x02", "\xa0", "\xa1\x04", "\xa1\x01"}};
  PropertyListLimits limits;
  limits.depth = 5;
  EXPECT_TRUE(parsePropertyList(list.bytes(), limits));
  limits.depth = 4;
  EXPECT_EQ(failureOf(list.bytes(), limits), "The property list has more than 4 levels");
}

TEST(PropertyListLimits, ExtremeNestingDoesNotExhaustTheStack) {
  std::string xml;
  for (int i = 0; i < 200'000; ++i) xml += "<array>";
  EXPECT_EQ(failureOf(xml).find("The property list has more than 32 levels"), 0u);
  BinaryList list{{}, 4, 4};
  for (std::uint64_t i = 0; i < 150'000; ++i) list.objects.push_back("\xa1" + bigEndian(i + 1, 4));
  list.objects.push_back("\xa0");
  EXPECT_EQ(failureOf(list.bytes()), "The property list has more than 32 levels");
}

TEST(PropertyListLimits, ValuesAreHeldToTheCount) {
  PropertyListLimits limits;
  limits.values = 5;
  for (const std::string& list : bothForms(Array{1, 2, Dictionary{{"k", 3}}}))
    EXPECT_TRUE(parsePropertyList(list, limits));
  for (const std::string& list : bothForms(Array{1, 2, Dictionary{{"k", 3}}, 4}))
    EXPECT_EQ(failureOf(list, limits).find("The property list has more than 5 values"), 0u);
}

TEST(PropertyListLimits, SharedValuesCountAtEachPlace) {
  PropertyListLimits limits;
  limits.values = 7;
  const BinaryList list{{"\xa3\x01\x01\x01", "\xa1\x02", "\x10\x01"}};
  EXPECT_TRUE(parsePropertyList(list.bytes(), limits));
  limits.values = 6;
  EXPECT_EQ(failureOf(list.bytes(), limits), "The property list has more than 6 values");
}

TEST(PropertyListLimits, ListsThatExplodeWhenExpandedAreRefused) {
  // Thirty levels of arrays that each hold the next one 200 times.
  BinaryList list;
  for (std::size_t level = 0; level < 30; ++level) list.objects.push_back(repeated(200, level + 1));
  list.objects.push_back("\x10\x01");
  EXPECT_EQ(failureOf(list.bytes()), "The property list has more than 100000 values");
}

TEST(PropertyListLimits, TextThatExplodesWhenExpandedIsRefused) {
  const std::string megabyte = "\x5f\x12" + bigEndian(1u << 20, 4) + std::string(1u << 20, 'x');
  EXPECT_TRUE(parsePropertyList(BinaryList{{repeated(4, 1), megabyte}, 4}.bytes()));
  EXPECT_EQ(failureOf(BinaryList{{repeated(5, 1), megabyte}, 4}.bytes()),
            "The property list has more than 4194304 bytes of content");
  const std::string keys = "\xd1\x02\x03";
  EXPECT_EQ(failureOf(BinaryList{{repeated(5, 1), keys, megabyte, "\x10\x01"}, 4}.bytes()),
            "The property list has more than 4194304 bytes of content");
}

TEST(PropertyListLimits, MoreObjectsThanValuesMayBeAreRefusedBeforeTheyAreRead) {
  PropertyListLimits limits;
  limits.values = 10;
  BinaryList list{{"\x10\x01"}};
  for (int i = 0; i < 20; ++i) list.objects.push_back("\x09");
  EXPECT_EQ(failureOf(list.bytes(), limits), "The property list has more than 10 values");
  list.objects.pop_back();
  EXPECT_TRUE(parsePropertyList(list.bytes(), limits));
}

TEST(PropertyListLimits, BytesAreHeldToTheByte) {
  for (const std::string& list : bothForms("some text")) {
    PropertyListLimits limits;
    limits.bytes = list.size();
    EXPECT_TRUE(parsePropertyList(list, limits));
    --limits.bytes;
    EXPECT_EQ(failureOf(list, limits), "The property list has " + std::to_string(list.size()) +
                                           " bytes, more than " + std::to_string(list.size() - 1));
  }
}

TEST(PropertyListLimits, AnEmptyListIsRefused) {
  EXPECT_EQ(failureOf(""), "The property list is empty");
}

}  // namespace
}  // namespace corvid
