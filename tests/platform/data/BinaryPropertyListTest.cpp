#include <gtest/gtest.h>

#include <cmath>
#include <limits>

#include "platform/data/PropertyList.h"
#include "tests/platform/data/BinaryListBuilder.h"

namespace corvid {
namespace {

using namespace std::string_literals;

Value read(const std::string& bytes) {
  Result<Value> result = parsePropertyList(bytes);
  EXPECT_TRUE(result) << result.failure().message;
  return result ? std::move(result).value() : Value();
}

Value object(const std::string& bytes) { return read(binaryListOf(bytes)); }

std::string failureOf(const std::string& bytes) {
  const Result<Value> result = parsePropertyList(bytes);
  EXPECT_FALSE(result);
  return result ? "" : result.failure().message;
}

// A small list with every type, a shared string and text beyond ASCII.
std::string sample() {
  return writeBinaryPropertyList(
      Array{Dictionary{{"b", true}, {"i", -5}, {"r", 0.5}, {"d", Date{1'700'000'000.25}}},
            Data{"\x00\xff"s}, "b", "\u00fc\U0001F600", std::string(15, 'x'), Array{}});
}

TEST(BinaryPropertyList, IntegersOfEverySizeAreRead) {
  EXPECT_EQ(object("\x10\xff"), Value(255));
  EXPECT_EQ(object("\x11\xff\xfe"), Value(65534));
  EXPECT_EQ(object("\x12\xff\xff\xff\xfe"), Value(4294967294));
  EXPECT_EQ(object("\x13" + bigEndian(static_cast<std::uint64_t>(-5), 8)), Value(-5));
  EXPECT_EQ(object("\x14" + std::string(15, '\0') + "\x07"), Value(7));
  EXPECT_EQ(object("\x14" + std::string(16, '\xff')), Value(-1));
}

TEST(BinaryPropertyList, LargeUnsignedIntegersWrap) {
  EXPECT_EQ(object("\x14" + bigEndian(0, 8) + bigEndian(1ull << 63, 8)),
            Value(std::numeric_limits<std::int64_t>::min()));
}

TEST(BinaryPropertyList, RealsOfBothSizesAreRead) {
  EXPECT_EQ(object("\x22\x3f\xc0\x00\x00"s), Value(1.5));
  EXPECT_EQ(object("\x23\x3f\xb9\x99\x99\x99\x99\x99\x9a"), Value(0.1));
}

TEST(BinaryPropertyList, DatesCountFrom2001) {
  EXPECT_EQ(object("\x33" + std::string(8, '\0')), Value(Date{978307200}));
  EXPECT_EQ(object("\x33\xbf\xd0\x00\x00\x00\x00\x00\x00"s), Value(Date{978307199.75}));
  EXPECT_EQ(object("\x33\x42\x6d\x1a\x94\xa2\x00\x00\x00"s), Value(Date{1e12 + 978307200}));
}

TEST(BinaryPropertyList, StringsAreReadInBothEncodings) {
  EXPECT_EQ(object("\x53"
                   "abc"),
            Value("abc"));
  EXPECT_EQ(object("\x50"), Value(""));
  EXPECT_EQ(object("\x53"
                   "a\0b"s),
            Value("a\0b"s));
  EXPECT_EQ(object("\x62\x00\xe9\x65\xe5"s), Value("\u00e9\u65e5"));
  EXPECT_EQ(object("\x62\xd8\x3d\xde\x00"s), Value("\U0001F600"));
  EXPECT_EQ(object("\x61\xff\xff"), Value("\uffff"));
}

TEST(BinaryPropertyList, StringsThatAreNoTextAreRefused) {
  EXPECT_EQ(failureOf(binaryListOf("\x52"
                                   "a\xff")),
            "A string is not UTF-8 at byte 9");
  for (const std::string& units :
       {"\xd8\x00\x00\x61"s, "\xde\x00\xd8\x3d"s, "\xd8\x3d\xd8\x3d"s, "\x00\x61\xd8\x3d"s})
    EXPECT_EQ(failureOf(binaryListOf("\x62" + units)), "Ill-formed UTF-16 in a string at byte 9");
}

TEST(BinaryPropertyList, SizesMayStandInAnIntegerOfTheirOwn) {
  for (std::size_t power = 0; power < 4; ++power) {
    const std::string size =
        std::string(1, static_cast<char>(0x10 + power)) + bigEndian(3, 1u << power);
    EXPECT_EQ(object("\x5f" + size + "abc"), Value("abc"));
    EXPECT_EQ(object("\x4f" + size + "abc"), Value(Data{"abc"}));
  }
  EXPECT_EQ(failureOf(binaryListOf("\x5f\x14" + bigEndian(0, 8) + bigEndian(3, 8) + "abc")),
            "An object has an impossible size at byte 9");
  EXPECT_EQ(failureOf(binaryListOf("\x5f\x51"
                                   "a")),
            "An object has an impossible size at byte 9");
  EXPECT_EQ(failureOf(binaryListOf("\x5f")), "An object has an impossible size at byte 9");
}

TEST(BinaryPropertyList, ReferencesAndOffsetsOfEverySizeAreRead) {
  for (std::size_t size = 1; size <= 8; ++size) {
    const BinaryList list{
        {"\xd1" + bigEndian(1, size) + bigEndian(2, size), "\x51k", "\x10\x07"}, size, size};
    EXPECT_EQ(read(list.bytes()), Value(Dictionary{{"k", 7}})) << size;
  }
}

TEST(BinaryPropertyList, TheRootMayBeAnyObject) {
  EXPECT_EQ(read(BinaryList{{"\x10\x01", "\xa1\x00"s}, 1, 1, 1}.bytes()), Value(Array{1}));
}

TEST(BinaryPropertyList, TypesThatValueLacksAreLeftOut) {
  const std::string uid = "\x80\x07", set = "\xc1\x04", orderedSet = "\xb1\x04", null = "\x00"s;
  for (const std::string& lacking : {uid, set, orderedSet, null}) {
    EXPECT_EQ(read(BinaryList{{"\xa3\x01\x02\x01", lacking, "\x10\x05"}}.bytes()), Value(Array{5}));
    EXPECT_EQ(read(BinaryList{{"\xd2\x01\x02\x03\x04", "\x51\x61", "\x51\x62", lacking, "\x10\x05"}}
                       .bytes()),
              Value(Dictionary{{"b", 5}}));
    EXPECT_EQ(failureOf(binaryListOf(lacking + std::string(8, '\0'))),
              "The property list holds no value");
  }
}

TEST(BinaryPropertyList, TheLastOfEqualKeysWins) {
  EXPECT_EQ(
      read(BinaryList{{"\xd2\x01\x02\x03\x04", "\x51k", "\x51k", "\x10\x01", "\x10\x02"}}.bytes()),
      Value(Dictionary{{"k", 2}}));
  EXPECT_EQ(read(BinaryList{{"\xd2\x01\x01\x02\x03", "\x51k", "\x10\x01", "\x10\x02"}}.bytes()),
            Value(Dictionary{{"k", 2}}));
}

TEST(BinaryPropertyList, KeysThatAreNoStringsAreRefused) {
  for (const char* key : {"\x10\x05", "\xa0", "\x80\x07"})
    EXPECT_EQ(failureOf(BinaryList{{"\xd1\x01\x02", key, "\x10\x06"}}.bytes()),
              "A key is not a string at byte 9");
}

TEST(BinaryPropertyList, UnknownObjectsAreRefused) {
  for (const int marker : {0x01, 0x0f, 0x15, 0x20, 0x21, 0x24, 0x32, 0x34, 0x70, 0x90, 0xe0, 0xf0})
    EXPECT_EQ(
        failureOf(binaryListOf(std::string(1, static_cast<char>(marker)) + std::string(64, '\0'))),
        "Unknown object at byte 8")
        << marker;
}

TEST(BinaryPropertyList, ObjectsThatContainThemselvesAreRefused) {
  EXPECT_EQ(failureOf(BinaryList{{"\xa1\x00"s}}.bytes()), "Object 0 contains itself");
  EXPECT_EQ(failureOf(BinaryList{{"\xa1\x01", "\xd1\x02\x00"s, "\x51k"}}.bytes()),
            "Object 0 contains itself");
  EXPECT_EQ(failureOf(BinaryList{{"\xd1\x00\x00"s}}.bytes()), "Object 0 contains itself");
}

TEST(BinaryPropertyList, SizesThatLieAreRefused) {
  for (const char* object : {"\x53"
                             "ab",
                             "\x43"
                             "ab",
                             "\x61"
                             "a",
                             "\xa1", "\xd1\x00",
                             "\x13"
                             "abcdefg",
                             "\x12"
                             "abc",
                             "\x22"
                             "abc",
                             "\x33"
                             "abcdefg",
                             "\x8f"
                             "abc",
                             "\xc1"})
    EXPECT_EQ(failureOf(binaryListOf(object)),
              "An object ends outside the property list at byte 8");
  for (const char* marker : {"\x4f", "\x5f", "\x6f", "\xaf", "\xcf", "\xdf"})
    for (const std::uint64_t size : {~0ull, ~0ull >> 1, 1ull << 60, 1ull << 32, 1000ull})
      EXPECT_EQ(failureOf(binaryListOf(marker + "\x13"s + bigEndian(size, 8))),
                "An object ends outside the property list at byte 8");
}

TEST(BinaryPropertyList, ReferencesAndOffsetsOutsideAreRefused) {
  EXPECT_EQ(failureOf(BinaryList{{"\xa1\x09"}}.bytes()), "There is no object 9 among 1");
  EXPECT_EQ(failureOf(BinaryList{{"\x09"}, 1, 1, 7}.bytes()), "There is no object 7 among 1");
  std::string list = BinaryList{{"\x09"}, 1}.bytes();
  list[9] = '\x07';
  EXPECT_EQ(failureOf(list), "Offset outside the property list at byte 9");
  list[9] = '\x09';
  EXPECT_EQ(failureOf(list), "Offset outside the property list at byte 9");
}

TEST(BinaryPropertyList, TrailersThatLieAreRefused) {
  const std::string sound = BinaryList{{"\x09"}, 1}.bytes();
  const std::size_t trailer = sound.size() - 32;
  const auto with = [&](std::size_t at, std::uint64_t number, std::size_t size) {
    return std::string(sound).replace(trailer + at, size, bigEndian(number, size));
  };
  EXPECT_EQ(read(sound), Value(true));
  for (const std::size_t at : {6u, 7u})
    for (const std::uint64_t size : {0u, 9u, 255u})
      EXPECT_EQ(failureOf(with(at, size, 1)).find("Impossible size of offsets or references"), 0u);
  for (const std::uint64_t count : {0ull, 2ull, ~0ull, 1ull << 61})
    EXPECT_EQ(failureOf(with(8, count, 8)).find("Impossible number of objects"), 0u);
  for (const std::uint64_t table : {0ull, 7ull, 11ull, ~0ull, 1ull << 63})
    EXPECT_EQ(failureOf(with(24, table, 8)).find("The offset table lies outside"), 0u);
  EXPECT_EQ(failureOf("bplist15" + sound.substr(8)),
            "Unknown version of the binary form at byte 0");
  EXPECT_EQ(failureOf("bplist00"), "The binary form ends early at byte 8");
}

TEST(BinaryPropertyList, EveryTruncationIsRefused) {
  const std::string whole = sample();
  read(whole);
  for (std::size_t length = 0; length < whole.size(); ++length)
    EXPECT_FALSE(parsePropertyList(std::string_view(whole).substr(0, length))) << length;
}

TEST(BinaryPropertyList, EverySingleByteChangeIsReadOrRefusedInOneLine) {
  const std::string whole = sample();
  int refused = 0;
  for (std::size_t at = 0; at < whole.size(); ++at) {
    for (int byte = 0; byte < 256; ++byte) {
      std::string changed = whole;
      changed[at] = static_cast<char>(byte);
      // In memory of just its size, so that a sanitizer sees every step outside.
      const std::vector<char> exact(changed.begin(), changed.end());
      const Result<Value> result = parsePropertyList({exact.data(), exact.size()});
      if (result) continue;
      ++refused;
      EXPECT_FALSE(result.failure().message.empty());
      EXPECT_EQ(result.failure().message.find('\n'), std::string::npos);
    }
  }
  EXPECT_GT(refused, 1000);
}

}  // namespace
}  // namespace corvid
