#include <gtest/gtest.h>

#include <cctype>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <regex>
#include <set>
#include <string>

#include "config/StorebagKeys.h"

namespace corvid {
namespace {

std::string contentOf(const std::filesystem::path& path) {
  std::ifstream file(path);
  EXPECT_TRUE(file) << path;
  return {std::istreambuf_iterator<char>(file), {}};
}

TEST(StorebagKeys, EachStandsOnceWithAllThatIsToldOfIt) {
  std::set<std::string> paths;
  for (const StorebagKey& key : storebagKeys()) {
    const std::string path = pathOf(key);
    EXPECT_TRUE(paths.insert(path).second) << path;
    EXPECT_EQ(storebagKey(key.place, key.name), &key) << path;
    for (const std::string_view text : {key.effect, key.without, key.since, textOf(key.type)}) {
      EXPECT_FALSE(text.empty()) << path;
      EXPECT_FALSE(text.ends_with('.')) << path;
    }
    const bool isContainer =
        key.type == StorebagType::dictionary || key.type == StorebagType::dictionaries;
    EXPECT_EQ(key.content.has_value(), isContainer) << path;
    EXPECT_LT(key.least, key.most) << path;
  }
  EXPECT_EQ(storebagKey(StorebagPlace::client, "clients"), nullptr);
}

TEST(StorebagKeys, PathsLeadFromTheStorebagDown) {
  EXPECT_EQ(pathOf(*storebagKey(StorebagPlace::storebag, "version")), "version");
  EXPECT_EQ(pathOf(*storebagKey(StorebagPlace::client, "post_url")),
            "ENVIRONMENT.httpPost.clients[].post_url");
}

// Where a reader asks a storebag for a key: stringAt(profile, "post_url"), client.find("x").
TEST(StorebagKeys, EveryKeyThatTheDaemonReadsIsAmongThem) {
  const std::filesystem::path source(CORVID_SOURCE_FOLDER);
  const std::regex asked(
      R"re((?:At\([^"()]*, ?|(?:client|item|profile|filter|whole|storebag)(?:\.|->)(?:find|contains)\()"([A-Za-z]\w*)")re");
  std::set<std::string> known;
  for (const StorebagKey& key : storebagKeys()) known.insert(std::string(key.name));
  std::set<std::string> read;
  for (const char* name :
       {"backends/https/ClientPolicy.cpp", "backends/https/EventFilters.cpp",
        "backends/https/HTTPSPostBackend.cpp", "backends/dashboard/DashboardBackend.cpp",
        "backends/upload/UploadBackend.cpp", "backends/metrix/MetrixBackend.cpp",
        "backends/wattbook/WattbookBackend.cpp", "config/Environment.cpp",
        "config/StorebagSerials.cpp"}) {
    const std::string text = contentOf(source / name);
    for (std::sregex_iterator found(text.begin(), text.end(), asked), end; found != end; ++found)
      read.insert((*found)[1]);
  }
  EXPECT_GE(read.size(), 25u);
  for (const std::string& key : read) EXPECT_TRUE(known.contains(key)) << key;
}

// "integer", "array of texts".
std::string typeOf(const StorebagKey& key) {
  std::string type(textOf(key.type));
  if (const auto blank = type.find(' '); type.starts_with("a")) type.erase(0, blank + 1);
  return type;
}

std::string rowOf(const StorebagKey& key) {
  const auto cell = [](std::string_view text) { return std::string(text) + " | "; };
  return "| `" + cell(std::string(key.name) + "`") + cell(typeOf(key)) + cell(key.effect) +
         cell(key.without) + std::string(key.since) + " |\n";
}

// The page that people read has a table for each place, with a row of each key and no other.
TEST(StorebagKeys, TheDocumentationHasATableForEachPlace) {
  const std::string page = contentOf(CORVID_SOURCE_FOLDER "/docs/storebag.md");
  const std::string head = "| Key | Type | What | Without it | Since |\n|---|---|---|---|---|\n";
  std::size_t tables = 0;
  for (std::size_t found = page.find(head); found != page.npos; found = page.find(head, found + 1))
    ++tables;
  std::size_t places = 0;
  for (std::size_t at = 0; at < storebagPlaceCount; ++at) {
    std::string table;
    for (const StorebagKey& key : storebagKeysAt(static_cast<StorebagPlace>(at)))
      table += rowOf(key);
    if (table.empty()) continue;
    ++places;
    EXPECT_NE(page.find(head + table + "\n"), page.npos) << "docs/storebag.md lacks\n"
                                                         << head << table;
  }
  EXPECT_EQ(tables, places);
}

// With one blank for each run of blanks and ends of lines, which mdoc sets as it likes.
std::string withSingleBlanks(const std::string& text) {
  return std::regex_replace(text, std::regex(R"(\s+)"), " ");
}

// A sentence of the manual: what stands between backticks is a macro's argument, and what follows
// it another.
std::string sentenceOf(std::string text) {
  text.front() = static_cast<char>(std::toupper(static_cast<unsigned char>(text.front())));
  return std::regex_replace(text + ".", std::regex("`([^`]*)`([.,]?)"), ".Li $1 $2") + "\n";
}

std::string itemOf(const StorebagKey& key) {
  return ".It Li " + std::string(key.name) + " Pq " + typeOf(key) + "\n" +
         sentenceOf(std::string(key.effect)) +
         sentenceOf("without it: " + std::string(key.without));
}

// The manual has a list for each place, with an item of each key and no other.
TEST(StorebagKeys, TheManualHasAListForEachPlace) {
  const std::string page =
      withSingleBlanks(contentOf(CORVID_SOURCE_FOLDER "/packaging/man/corvid-storebag.5"));
  std::size_t items = 0;
  for (std::size_t found = page.find(" Without it: "); found != page.npos;
       found = page.find(" Without it: ", found + 1))
    ++items;
  EXPECT_EQ(items, storebagKeys().size());
  for (std::size_t at = 0; at < storebagPlaceCount; ++at) {
    std::string list;
    for (const StorebagKey& key : storebagKeysAt(static_cast<StorebagPlace>(at)))
      list += itemOf(key);
    if (list.empty()) continue;
    list = ".Bl -tag -width Ds\n" + list + ".El\n";
    EXPECT_NE(page.find(withSingleBlanks(list)), page.npos) << "corvid-storebag.5 lacks\n" << list;
  }
}

}  // namespace
}  // namespace corvid
