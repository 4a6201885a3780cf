// Both forms together: what one side writes the other reads, also where the other side is an
// independent implementation.
#include <gtest/gtest.h>
#include <plist/plist.h>

#include <cstdlib>
#include <limits>
#include <memory>

#include "platform/data/PropertyList.h"
#include "tests/platform/data/BothForms.h"
#include "tests/support/Scratch.h"

namespace corvid {
namespace {

using namespace std::string_literals;

Dictionary everyType() {
  return {{"true", true},
          {"false", false},
          {"zero", 0},
          {"small", 200},
          {"medium", 60'000},
          {"large", 4'000'000'000},
          {"negative", -1},
          {"least", std::numeric_limits<std::int64_t>::min()},
          {"most", std::numeric_limits<std::int64_t>::max()},
          {"real", 1700000000.123456},
          {"tiny", 5e-324},
          {"whole", -3.0},
          {"date", Date{1'700'000'000}},
          {"early", Date{-2208988800}},
          {"empty", ""},
          {"text", " <&> \"quoted\" \n\t"},
          {"unicode", "gr\u00fc\u00df \u65e5\u672c \U0001F600"},
          {"data", Data{"\x00\x01\xff"s}},
          {"no data", Data{}},
          {"array", Array{1, "two", Array{}, Dictionary{{"three", 3.5}}}},
          {"dictionary", Dictionary{{"text", "text"}, {"\u00e9", Dictionary{}}}}};
}

Value read(const std::string& bytes) {
  Result<Value> result = parsePropertyList(bytes);
  EXPECT_TRUE(result) << result.failure().message;
  return result ? std::move(result).value() : Value();
}

TEST(PropertyList, EveryTypeComesBackFromBothForms) {
  for (const std::string& list : bothForms(everyType())) EXPECT_EQ(read(list), Value(everyType()));
}

TEST(PropertyList, EveryTypeMayBeTheRoot) {
  for (const auto& [key, value] : everyType())
    for (const std::string& list : bothForms(value)) EXPECT_EQ(read(list), value) << key;
}

TEST(PropertyList, EntriesKeepTheirOrder) {
  for (const std::string& list : bothForms(everyType())) {
    const Value value = read(list);
    const Dictionary expected = everyType();
    EXPECT_TRUE(std::equal(expected.begin(), expected.end(), value.dictionary()->begin(),
                           value.dictionary()->end(),
                           [](const auto& a, const auto& b) { return a.key == b.key; }));
  }
}

TEST(PropertyList, TheBinaryFormKeepsWhatXMLCannot) {
  const Dictionary values{{"fraction", Date{1'700'000'000.25}},
                          {"far", Date{1e15}},
                          {"infinite", std::numeric_limits<double>::infinity()},
                          {"control", "a\0b\x01"s}};
  EXPECT_EQ(read(writeBinaryPropertyList(values)), Value(values));
}

TEST(PropertyList, NullIsLeftOut) {
  const Value value = Array{Value(), 1, Dictionary{{"a", Value()}, {"b", 2}}};
  const Value expected = Array{1, Dictionary{{"b", 2}}};
  for (const std::string& list : bothForms(value)) EXPECT_EQ(read(list), expected);
  EXPECT_FALSE(parsePropertyList(writeXMLPropertyList(Value())));
  EXPECT_FALSE(parsePropertyList(writeBinaryPropertyList(Value())));
}

TEST(PropertyList, BytesThatAreNotUTF8AreReplaced) {
  const Value value = Dictionary{{"k\xff", "a\xc0z"}};
  const Value expected = Dictionary{{"k\ufffd", "a\ufffdz"}};
  for (const std::string& list : bothForms(value)) EXPECT_EQ(read(list), expected);
}

TEST(PropertyList, EqualStringsAreWrittenOnceInTheBinaryForm) {
  Array records;
  for (int i = 0; i < 100; ++i)
    records.push_back(Dictionary{{"a rather long key", "a rather long key"}});
  const std::string list = writeBinaryPropertyList(records);
  EXPECT_EQ(list.find("a rather long key"), list.rfind("a rather long key"));
  EXPECT_EQ(read(list), Value(records));
}

TEST(PropertyList, LargeBinaryListsUseWiderReferencesAndOffsets) {
  Array numbers;
  for (int i = 0; i < 70'000; ++i) numbers.push_back(i);
  const std::string list = writeBinaryPropertyList(numbers);
  EXPECT_EQ(list[list.size() - 26], 4);
  EXPECT_EQ(list[list.size() - 25], 4);
  EXPECT_EQ(read(list), Value(numbers));
}

// libplist as the independent implementation.
using Node = std::unique_ptr<void, decltype(&plist_free)>;

// Since 2.3 it also tells the format, for which nobody asks.
template <class Result, class... Format>
Node readBy(Result (*library)(const char*, std::uint32_t, plist_t*, Format...),
            const std::string& bytes) {
  plist_t node = nullptr;
  library(bytes.data(), static_cast<std::uint32_t>(bytes.size()), &node, Format{}...);
  return {node, &plist_free};
}

Node readByLibrary(const std::string& bytes) { return readBy(plist_from_memory, bytes); }

std::string writtenByLibrary(const Node& node, bool binary) {
  char* bytes = nullptr;
  std::uint32_t length = 0;
  (binary ? plist_to_bin : plist_to_xml)(node.get(), &bytes, &length);
  std::string result(bytes, length);
  std::free(bytes);  // as its functions for that do, whose names differ by release
  return result;
}

TEST(PropertyList, AnotherImplementationReadsBothFormsAndWritesThemBack) {
  for (const std::string& list : bothForms(everyType())) {
    const Node node = readByLibrary(list);
    ASSERT_NE(node, nullptr);
    EXPECT_EQ(plist_dict_get_size(node.get()), everyType().size());
    EXPECT_EQ(read(writtenByLibrary(node, true)), Value(everyType()));
    EXPECT_EQ(read(writtenByLibrary(node, false)), Value(everyType()));
  }
}

TEST(DictionaryFile, IsReadFromItsPropertyList) {
  const ScratchFolder scratch;
  const auto read = readDictionaryFile(scratch.write(
      "a.plist", "<plist version=\"1.0\"><dict><key>a</key><integer>1</integer></dict></plist>"));
  ASSERT_TRUE(read);
  EXPECT_EQ(read.value(), (Dictionary{{"a", 1}}));
}

TEST(DictionaryFile, ThatCannotBeUsedIsAFailureThatNamesIt) {
  const ScratchFolder scratch;
  const std::string damaged = scratch.write("damaged.plist", "<plist><dict>");
  const std::string array = scratch.write("array.plist", "<plist><array/></plist>");
  const std::string missing = scratch.path() + "/missing.plist";
  for (const std::string& path : {damaged, array, missing}) {
    const auto read = readDictionaryFile(path);
    ASSERT_FALSE(read) << path;
    EXPECT_EQ(read.failure().message.find(path + ": "), 0u) << read.failure().message;
  }
  EXPECT_EQ(readDictionaryFile(array).failure().message, array + ": not a dictionary");
}

}  // namespace
}  // namespace corvid
