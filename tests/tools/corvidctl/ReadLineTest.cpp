#include <gtest/gtest.h>

#include <sstream>

#include "tools/corvidctl/Commands.h"

namespace corvid::ctl {
namespace {

// The text of each line, with a mark behind one that is too long.
std::vector<std::string> read(const std::string& text, std::size_t longest = 100) {
  std::istringstream input(text);
  std::vector<std::string> lines;
  while (const auto line = readLine(input, longest))
    lines.push_back(line->text + (line->isTooLong ? "..." : ""));
  return lines;
}

using Lines = std::vector<std::string>;

TEST(ReadLine, EmptyLinesAreLines) { EXPECT_EQ(read("a\n\nb c\n"), (Lines{"a", "", "b c"})); }

TEST(ReadLine, ReadsNothingFromNothing) { EXPECT_EQ(read(""), Lines()); }

TEST(ReadLine, TheLastLineNeedsNoEnd) { EXPECT_EQ(read("a\nb"), (Lines{"a", "b"})); }

TEST(ReadLine, KeepsEveryOtherByte) {
  const std::string line("\0\r\xff\t", 4);
  EXPECT_EQ(read(line + "\n"), Lines{line});
}

TEST(ReadLine, ALineOfTheGreatestLengthIsWhole) { EXPECT_EQ(read("abc\n", 3), Lines{"abc"}); }

TEST(ReadLine, ALongerLineIsCutAndTheNextIsReadWholly) {
  EXPECT_EQ(read("abcd\nef\n", 3), (Lines{"abc...", "ef"}));
  EXPECT_EQ(read("abcdefgh", 3), Lines{"abc..."});
}

}  // namespace
}  // namespace corvid::ctl
