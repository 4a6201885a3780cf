#include <gtest/gtest.h>

#include <algorithm>

#include "base/Reading.h"
#include "config/StorebagKeys.h"
#include "platform/data/Crypto.h"
#include "platform/data/JSON.h"
#include "platform/data/PropertyList.h"
#include "tests/support/Scratch.h"
#include "tests/tools/storebag/StorebagEdits.h"
#include "tests/tools/storebag/StorebagTool.h"
#include "tools/JSONValues.h"

namespace corvid {
namespace {

const Value faulty = with(
    with(soundStorebag(), "release.httpPost.clients[0].sampling_threshold", 7), "refresh_cycle", 0);

class LintCommand : public testing::Test {
 protected:
  ToolResult linted(const std::string& bytes, std::vector<std::string> options = {}) {
    options.insert(options.begin(), {"lint", _folder.write("storebag", bytes)});
    return storebagTool(std::move(options));
  }

  const ScratchFolder _folder;
};

TEST_F(LintCommand, ExitsWith0WhereNothingIsWrong) {
  const ToolResult sound = linted(writeXMLPropertyList(soundStorebag()));
  EXPECT_EQ(sound.status, 0);
  EXPECT_EQ(sound.output, "0 wrong, 0 notes\n");
  EXPECT_EQ(sound.errors, "");
  EXPECT_EQ(linted(writeXMLPropertyList(with(soundStorebag(), "refresh_cycle", 0))).status, 0);
}

TEST_F(LintCommand, ExitsWith1AndSaysWhatIsWrong) {
  const ToolResult found = linted(writeXMLPropertyList(faulty));
  EXPECT_EQ(found.status, 1);
  EXPECT_EQ(found.output,
            "WRONG release.httpPost.clients[0].sampling_threshold: 7 is out of range: -1 to 1; "
            "write 0.07 for 7 %\n"
            "note  refresh_cycle: is never fresh: each configuration of a client fetches it anew\n"
            "1 wrong, 1 notes\n");
  EXPECT_EQ(found.errors, "");
}

TEST_F(LintCommand, FindsTheSameInEveryFormOfAStorebag) {
  const std::string expected = linted(writeXMLPropertyList(faulty)).output;
  const std::string binary = writeBinaryPropertyList(faulty);
  EXPECT_EQ(linted(binary).output, expected);
  EXPECT_EQ(linted(*writeJSON(*tools::jsonFromValue(faulty).dictionary())).output, expected);
  EXPECT_EQ(linted(writeXMLPropertyList(
                       Dictionary{{"bag", base64Encode(binary)}, {"signature", "c29tZQ=="}}))
                .output,
            expected);
}

TEST_F(LintCommand, PrintsOneObjectForPrograms) {
  const ToolResult found = linted(writeXMLPropertyList(faulty), {"--json"});
  EXPECT_EQ(found.status, 1);
  const auto json = parseJSON(found.output);
  ASSERT_TRUE(json) << found.output;
  const Dictionary& object = *json.value().dictionary();
  EXPECT_EQ(*object.find("wrong"), Value(1));
  EXPECT_EQ(*object.find("notes"), Value(1));
  const Dictionary& first = *arrayAt(object, "findings")->front().dictionary();
  EXPECT_EQ(textAt(first, "kind"), "WRONG");
  EXPECT_EQ(textAt(first, "path"), "release.httpPost.clients[0].sampling_threshold");
  EXPECT_EQ(textAt(first, "what"), "7 is out of range: -1 to 1");
  EXPECT_EQ(textAt(first, "suggestion"), "write 0.07 for 7 %");
}

TEST_F(LintCommand, SaysInOneLineWhatItCannotRead) {
  const std::string file = _folder.path("storebag");
  expectFailure({"lint", file}, file + ": No such file or directory");
  _folder.write("storebag", "[]");
  expectFailure({"lint", file}, file + " is no dictionary");
}

TEST_F(LintCommand, NamesEveryKeyAtItsPlaceInItsHelp) {
  const std::vector<std::string> lines = linesOf(printedBy({"lint", "--help"}));
  for (const StorebagKey& key : storebagKeys()) {
    const std::string_view path = pathOf(key.place);
    auto line = std::ranges::find(lines, "  " + std::string(path.empty() ? "the storebag" : path));
    bool isNamed = false;
    while (line != lines.end() && ++line != lines.end() && line->starts_with("    "))
      isNamed |= (*line + ' ').find(" " + std::string(key.name) + ' ') != std::string::npos;
    EXPECT_TRUE(isNamed) << pathOf(key);
  }
  for (const std::string& line : lines) EXPECT_LE(line.size(), 80u) << line;
}

TEST(KeysCommand, PrintsEachKeyWithAllThatTheTableSays) {
  const std::string text = printedBy({"keys"});
  EXPECT_EQ(std::ranges::count(text, '\n'), static_cast<std::ptrdiff_t>(3 * storebagKeys().size()));
  EXPECT_NE(text.find("ENVIRONMENT.httpPost.clients[].override_dnu\n"
                      "    integer, since 0.1.0: 1 lets the client report without the user's "
                      "consent\n"
                      "    without it: consent needed\n"),
            text.npos)
      << text;
}

TEST(KeysCommand, PrintsOneObjectForPrograms) {
  const auto json = parseJSON(printedBy({"keys", "--json"}));
  const Array& keys = *arrayAt(*json.value().dictionary(), "keys");
  ASSERT_EQ(keys.size(), storebagKeys().size());
  for (std::size_t index = 0; index < keys.size(); ++index) {
    const Dictionary& key = *keys[index].dictionary();
    EXPECT_EQ(textAt(key, "path"), pathOf(storebagKeys()[index]));
    EXPECT_EQ(booleanAt(key, "required"), storebagKeys()[index].isRequired);
    for (const char* part : {"type", "effect", "without", "since"})
      EXPECT_TRUE(stringAt(key, part)) << part;
  }
}

}  // namespace
}  // namespace corvid
