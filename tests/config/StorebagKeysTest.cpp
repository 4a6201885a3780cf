#include <gtest/gtest.h>

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

std::string rowOf(const StorebagKey& key) {
  const auto cell = [](std::string_view text) { return std::string(text) + " | "; };
  std::string type(textOf(key.type));
  if (const auto blank = type.find(' '); type.starts_with("a")) type.erase(0, blank + 1);
  return "| `" + cell(std::string(key.name) + "`") + cell(type) + cell(key.effect) +
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

}  // namespace
}  // namespace corvid
