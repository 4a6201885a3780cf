#include <gtest/gtest.h>

#include <sstream>

#include "tools/corvidctl/SessionCommand.h"

namespace corvid::ctl {
namespace {

// Each line as its number and text, with a mark behind one that is too long.
std::vector<std::string> read(const std::string& text, std::size_t longest = 100) {
  std::istringstream input(text);
  std::vector<std::string> lines;
  for (LineReader reader(input, longest); reader.next();)
    lines.push_back(std::to_string(reader.number()) + ":" + reader.line() +
                    (reader.isTooLong() ? "..." : ""));
  return lines;
}

using Lines = std::vector<std::string>;

TEST(LineReader, NumbersLinesFromOneAndCountsEmptyOnes) {
  EXPECT_EQ(read("a\n\nb c\n"), (Lines{"1:a", "2:", "3:b c"}));
}

TEST(LineReader, ReadsNothingFromNothing) { EXPECT_EQ(read(""), Lines()); }

TEST(LineReader, TheLastLineNeedsNoEnd) { EXPECT_EQ(read("a\nb"), (Lines{"1:a", "2:b"})); }

TEST(LineReader, KeepsEveryOtherByte) {
  const std::string line("\0\r\xff\t", 4);
  EXPECT_EQ(read(line + "\n"), Lines{"1:" + line});
}

TEST(LineReader, ALineOfTheGreatestLengthIsWhole) { EXPECT_EQ(read("abc\n", 3), Lines{"1:abc"}); }

TEST(LineReader, ALongerLineIsCutAndTheNextIsReadWholly) {
  EXPECT_EQ(read("abcd\nef\n", 3), (Lines{"1:abc...", "2:ef"}));
  EXPECT_EQ(read("abcdefgh", 3), Lines{"1:abc..."});
}

}  // namespace
}  // namespace corvid::ctl
