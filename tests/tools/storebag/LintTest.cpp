#include <fmt/format.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <limits>
#include <string>
#include <vector>

#include "platform/data/JSON.h"
#include "platform/data/PropertyList.h"
#include "tests/support/Scratch.h"
#include "tests/support/SlowBuild.h"
#include "tests/tools/storebag/StorebagEdits.h"
#include "tools/lab/LabRoot.h"
#include "tools/storebag/Lint.h"
#include "tools/storebag/lint/CountryCodes.h"

namespace corvid {
namespace {

using storebag::jsonOf;
using storebag::lint;
using storebag::LintFinding;
using storebag::textOf;

std::string contentOf(const std::filesystem::path& path) {
  std::ifstream file(path);
  EXPECT_TRUE(file) << path;
  return {std::istreambuf_iterator<char>(file), {}};
}

void expectNothingWrong(std::string_view bytes, const std::string& name) {
  const Result<Value> storebag = parsePropertyList(bytes);
  ASSERT_TRUE(storebag) << name << ": " << storebag.failure().message;
  const auto findings = lint(storebag.value());
  EXPECT_EQ(count(findings, LintFinding::Kind::wrong), 0u) << name << '\n' << textOf(findings);
}

TEST(Lint, CallsNothingWrongInTheLabsStorebags) {
  const ScratchFolder folder;
  const lab::LabRoot root(folder.path());
  root.writeFiles("");
  std::size_t storebags = 0;
  for (const auto& file : std::filesystem::directory_iterator(folder.path("lab/storebags"))) {
    expectNothingWrong(contentOf(file), file.path());
    ++storebags;
  }
  EXPECT_EQ(storebags, 9u);
}

TEST(Lint, CallsNothingWrongInTheInstalledExample) {
  const std::string example = "packaging/examples/storebag.plist";
  expectNothingWrong(contentOf(std::filesystem::path(CORVID_SOURCE_FOLDER) / example), example);
}

// Every block of XML with a version and a section is one.
TEST(Lint, CallsNothingWrongInTheStorebagsOfTheDocumentation) {
  const std::filesystem::path source(CORVID_SOURCE_FOLDER);
  std::vector<std::filesystem::path> pages{source / "README.md"};
  for (const auto& file : std::filesystem::directory_iterator(source / "docs"))
    if (file.path().extension() == ".md") pages.push_back(file);
  std::size_t storebags = 0;
  for (const auto& page : pages) {
    const std::string text = contentOf(page);
    constexpr std::string_view fence = "```xml\n";
    for (std::size_t at = text.find(fence); at != text.npos; at = text.find(fence, at + 1)) {
      const std::string block = text.substr(at + fence.size(), text.find("\n```\n", at) - at);
      if (block.find("<key>version</key>") == block.npos) continue;
      expectNothingWrong(block.substr(0, block.find("</plist>") + 8), page);
      ++storebags;
    }
  }
  EXPECT_GE(storebags, 1u);
}

TEST(Lint, TakesWhatIsNoDictionaryForNoStorebag) {
  for (const Value& value : {Value(), Value("text"), Value(Array{Dictionary()})}) {
    const auto findings = lint(value);
    ASSERT_EQ(findings.size(), 1u);
    EXPECT_EQ(findings[0].kind, LintFinding::Kind::wrong);
    EXPECT_EQ(findings[0].path, "");
  }
}

TEST(Lint, SaysNothingMoreOfAValueThatIsWrong) {
  const Value storebag = with(soundStorebag(), "release.httpPost.clients[0].filters", "none");
  EXPECT_EQ(lint(storebag).size(), 1u);
}

// The first entry that matches decides, so one for everybody hides those behind it, and one for
// fewer hides none.
TEST(Lint, HidesAnEntryOnlyWhereEarlierOnesTakeAllThatItIsFor) {
  const auto hidden = [](const Dictionary& first, const Dictionary& second,
                         const Dictionary& third) {
    const Value storebag =
        with(soundStorebag(), "release.httpPost.clients", Array{first, second, third});
    std::vector<std::string> paths;
    for (const LintFinding& finding : lint(storebag))
      if (finding.what.find("is hidden") != std::string::npos)
        paths.push_back(finding.path.substr(finding.path.find('[')));
    return paths;
  };
  using Paths = std::vector<std::string>;
  const Dictionary player{{"client", "Player"}};
  const Dictionary radio{{"service", "radio"}};
  const Dictionary both{{"client", "Player"}, {"service", "radio"}};
  const Dictionary everybody;
  EXPECT_EQ(hidden(player, radio, both), Paths{"[2]"});
  EXPECT_EQ(hidden(both, player, radio), Paths());
  EXPECT_EQ(hidden(both, player, everybody), Paths());
  EXPECT_EQ(hidden(everybody, player, radio), (Paths{"[1]", "[2]"}));
  EXPECT_EQ(hidden(radio, {{"service", "RadioStation"}}, {{"service", "adio"}}), Paths{"[1]"});
  EXPECT_EQ(hidden(player, {{"client", "Recorder"}}, {{"client", "recorder,PLAYER"}}),
            Paths{"[2]"});
  EXPECT_EQ(hidden(player, {{"client", "Players"}}, {{"client", "Play"}}), Paths());
  EXPECT_EQ(hidden({{"client", ""}}, {{"client", ","}}, player), Paths());
}

TEST(Lint, PrintsALineForEachFindingAndTheirNumbers) {
  const std::vector<LintFinding> findings{
      {LintFinding::Kind::wrong, "release.a\nb", "is odd", "write 1"},
      {LintFinding::Kind::note, "version", "is empty", ""},
      {LintFinding::Kind::wrong, "", "is no dictionary", ""}};
  EXPECT_EQ(textOf(findings),
            "WRONG release.a b: is odd; write 1\n"
            "note  version: is empty\n"
            "WRONG storebag: is no dictionary\n"
            "2 wrong, 1 notes\n");
}

TEST(Lint, GivesProgramsOneObject) {
  const std::vector<LintFinding> findings{
      {LintFinding::Kind::wrong, "release.a", "is odd", "write 1"},
      {LintFinding::Kind::note, "version", "is empty", ""}};
  const Dictionary expected{{"findings", Array{Dictionary{{"kind", "WRONG"},
                                                          {"path", "release.a"},
                                                          {"what", "is odd"},
                                                          {"suggestion", "write 1"}},
                                               Dictionary{{"kind", "note"},
                                                          {"path", "version"},
                                                          {"what", "is empty"},
                                                          {"suggestion", Value()}}}},
                            {"wrong", 1},
                            {"notes", 1}};
  EXPECT_EQ(parseJSON(jsonOf(findings)).value(), Value(expected));
}

// What an author brings along stays on its line and in valid JSON.
TEST(Lint, KeepsTextsOfTheStorebagInOneLine) {
  const Value storebag = with(soundStorebag(), "release.httpPost.clients[0].post_url",
                              "ftp://a\nWRONG version: \x1b[2J\xff");
  const auto findings = lint(storebag);
  const std::string text = textOf(findings);
  EXPECT_EQ(std::ranges::count(text, '\n'), 2) << text;
  EXPECT_EQ(text.find('\x1b'), text.npos);
  EXPECT_TRUE(parseJSON(jsonOf(findings)));
}

Dictionary storebagOf(std::size_t entries) {
  Array clients;
  for (std::size_t index = 0; index < entries; ++index)
    clients.push_back(Dictionary{
        {"client", fmt::format("Player{0},Recorder{0},Editor{0}", index)},
        {"service", "music,radio"},
        {"post_url", "https://collector.example/v1/batch"},
        {"locale_whitelist", Array{"DE", "FR", "US", "GB", "JP"}},
        {"filters", Array{Dictionary{{"key", "secret"}, {"action", "remove"}},
                          Dictionary{{"key", "account"}, {"action", "sha256"}},
                          Dictionary{{"key", "path"}, {"action", "remove"}, {"method", 3}}}},
        {"sampling_threshold", 0.5},
        {"per_country_sampling_thresholds",
         Array{Dictionary{{"country", Array{"DE", "FR"}}, {"threshold", 0.25}}}},
        {"event_threshold", 49}});
  const Value small = Dictionary{{"metrix", Dictionary()}};
  const Value section = Dictionary{{"httpPost", Dictionary{{"clients", std::move(clients)}}}};
  return {
      {"version", "1"}, {"development", small}, {"halcyon_internal", small}, {"release", section}};
}

// The fastest of a few runs, in time of the processor, so that a busy machine does not matter.
TEST(Lint, Of500EntriesTakesUnder50Milliseconds) {
  const Value storebag = storebagOf(500);
  std::clock_t fastest = std::numeric_limits<std::clock_t>::max();
  for (int run = 0; run < 5; ++run) {
    const std::clock_t start = std::clock();
    EXPECT_EQ(lint(storebag).size(), 0u);
    fastest = std::min(fastest, std::clock() - start);
  }
  const auto milliseconds = static_cast<double>(fastest) * 1000 / CLOCKS_PER_SEC;
  RecordProperty("milliseconds", fmt::format("{:.1f}", milliseconds));
  EXPECT_LT(milliseconds, isSlowBuild ? 1000 : 50);
}

// Lists of all countries are the longest that people write.
TEST(Lint, OfAListOfEveryCountryTakesNoLonger) {
  Array countries;
  for (const std::string& code : storebag::countryCodes()) countries.push_back(code);
  Value storebag = storebagOf(500);
  for (std::size_t index = 0; index < 500; ++index)
    storebag = with(storebag, fmt::format("release.httpPost.clients[{}].locale_whitelist", index),
                    countries);
  const std::clock_t start = std::clock();
  EXPECT_EQ(lint(storebag).size(), 500u);
  const auto milliseconds = static_cast<double>(std::clock() - start) * 1000 / CLOCKS_PER_SEC;
  RecordProperty("milliseconds", fmt::format("{:.1f}", milliseconds));
  EXPECT_LT(milliseconds, isSlowBuild ? 5000 : 250);
}

}  // namespace
}  // namespace corvid
