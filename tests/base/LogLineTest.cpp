#include <gtest/gtest.h>

#include <string>
#include <string_view>

#include "base/Log.h"
#include "base/LogLine.h"
#include "tests/fakes/CapturedLog.h"

namespace corvid {
namespace {

using namespace std::string_view_literals;

std::string shown(std::string_view text) { return logLine(text, text.size()); }

// What is written for one line with this text in it.
std::string logged(std::string_view text) {
  CapturedLog log;
  logInfo("{}", text);
  return log.lines().at(0).second;
}

TEST(LogLine, TextStaysAsItIs) {
  EXPECT_EQ(shown("plain, \xc3\xa4 and \xf0\x9f\x90\xa6"), "plain, \xc3\xa4 and \xf0\x9f\x90\xa6");
  EXPECT_EQ(shown(""), "");
}

TEST(LogLine, ControlCharactersBecomeEscapes) {
  EXPECT_EQ(shown("a\nb\tc\rd\x1b[31me\x7f"), "a\\nb\\tc\\x0dd\\x1b[31me\\x7f");
  EXPECT_EQ(shown("x\0y"sv), "x\\x00y");
  EXPECT_EQ(shown("\xc2\x85\xc2\x9b"), "\\x85\\x9b");
}

TEST(LogLine, LineSeparatorsAndCharactersThatTurnTheWritingBecomeEscapes) {
  EXPECT_EQ(shown("\xe2\x80\xa8\xe2\x80\xa9"), "\\u2028\\u2029");
  EXPECT_EQ(shown("\xe2\x80\xae"
                  "cba\xe2\x80\xac"),
            "\\u202ecba\\u202c");
  EXPECT_EQ(shown("\xe2\x81\xa6\xe2\x81\xa9\xd8\x9c\xe2\x80\x8f"), "\\u2066\\u2069\\u061c\\u200f");
}

TEST(LogLine, BytesThatAreNoTextBecomeEscapes) {
  EXPECT_EQ(shown("\xff\xc3|\xe2\x80"), "\\xff\\xc3|\\xe2\\x80");
}

TEST(LogLine, UpToTheLimitNothingIsLeftOut) {
  const std::string text(logLineLimit, 'x');
  EXPECT_EQ(logged(text), text);
}

TEST(LogLine, PastTheLimitItIsCutAndTellsHowMuchIsMissing) {
  EXPECT_EQ(logged(std::string(logLineLimit + 1, 'x')),
            std::string(logLineLimit, 'x') + " [1 bytes left out]");
  std::string large;
  large.resize(33'000'000, 'x');
  EXPECT_EQ(logged(large), std::string(logLineLimit, 'x') + " [32995904 bytes left out]");
}

TEST(LogLine, IsNeverCutInTheMiddleOfACharacter) {
  for (std::size_t before = logLineLimit - 4; before < logLineLimit; ++before) {
    const std::string start(before, 'x');
    const std::string line = logged(start + "\xf0\x9f\x90\xa6" + "end");
    const bool fits = before + 4 <= logLineLimit;
    EXPECT_EQ(line,
              fits ? start + "\xf0\x9f\x90\xa6 [3 bytes left out]" : start + " [7 bytes left out]");
  }
}

TEST(LogLine, EscapesCountAsTheyAreShown) {
  const std::string line = logged(std::string(2000, '\x1b'));
  EXPECT_EQ(line, shown(std::string(1024, '\x1b')) + " [976 bytes left out]");
}

TEST(LogLine, AnEndingLineEndIsNoPartOfIt) {
  EXPECT_EQ(logged(std::string(logLineLimit - 1, 'x') + "\n"), std::string(logLineLimit - 1, 'x'));
}

}  // namespace
}  // namespace corvid
