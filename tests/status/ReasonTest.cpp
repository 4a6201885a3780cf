#include <gtest/gtest.h>

#include <fstream>
#include <set>
#include <sstream>
#include <string>

#include "protocol/Reason.h"

namespace corvid {
namespace {

TEST(Reason, EachHasItsOwnWordAndTextsInTheOrderOfTheValues) {
  std::set<std::string_view> words;
  for (std::size_t at = 0; at < reasonCount; ++at) {
    const ReasonText& text = reasonTexts[at];
    EXPECT_EQ(static_cast<std::size_t>(text.reason), at) << text.word;
    EXPECT_TRUE(words.insert(text.word).second) << text.word;
    EXPECT_TRUE(text.what.ends_with('.')) << text.word;
    EXPECT_TRUE(text.remedy.ends_with('.')) << text.word;
    EXPECT_EQ(reasonOf(text.word), text.reason);
  }
  EXPECT_EQ(reasonOf("somethingElse"), std::nullopt);
}

TEST(Reason, EachHasAMessageIDOfItsOwn) {
  std::set<std::string_view> identifiers;
  for (const ReasonText& text : reasonTexts) {
    EXPECT_EQ(text.messageID.size(), 32u) << text.word;
    EXPECT_EQ(text.messageID.find_first_not_of("0123456789abcdef"), std::string_view::npos)
        << text.word;
    EXPECT_TRUE(identifiers.insert(text.messageID).second) << text.word;
  }
}

// The page that people read says what the program says, of each reason, and of no other.
TEST(Reason, TheDocumentationHasARowOfEachAndNoOther) {
  std::ifstream file(CORVID_DOCS_FOLDER "/reasons.md");
  std::set<std::string> rows;
  for (std::string line; std::getline(file, line);)
    if (line.starts_with("| `")) rows.insert(line);
  std::set<std::string> expected;
  for (const ReasonText& text : reasonTexts) {
    std::ostringstream row;
    row << "| `" << text.word << "` | " << text.what << " | " << text.remedy << " | `"
        << text.messageID << "` |";
    expected.insert(row.str());
  }
  EXPECT_EQ(rows, expected);
}

}  // namespace
}  // namespace corvid
