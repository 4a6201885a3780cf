// Which storebag is in force is told from what was handed out.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "base/Reading.h"
#include "platform/data/PropertyList.h"
#include "tests/support/SigningKeys.h"
#include "tools/lab/StorebagSigner.h"
#include "tools/lab/StorebagWatch.h"

namespace corvid::lab {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;

class StorebagWatchTest : public testing::Test {
 protected:
  StorebagWatchTest() { publish("lumen", "1"); }

  void publish(const std::string& name, const std::string& version) {
    const Dictionary section{{"httpPost", Dictionary()}, {"dashboard", Dictionary()}};
    folder.write(name + ".plist",
                 writeXMLPropertyList(Dictionary{{"version", version}, {"release", section}}));
  }
  Dictionary bag(const std::string& name = "lumen") {
    for (const Value& one : watch.storebags())
      if (*stringAt(*one.dictionary(), "name") == name) return *one.dictionary();
    return {};
  }

  ScratchFolder folder;
  const StorebagSigner signer{signingKeyFile("trusted")};
  const StorebagServer server{folder.path(), signer, 60, [](std::string_view) { return ""; }};
  StorebagWatch watch{server};
};

TEST_F(StorebagWatchTest, WhatNobodyHasFetchedIsNotInForce) {
  publish("cadence", "2");
  folder.write(".hidden.plist", "x");
  folder.write("note.txt", "x");
  std::vector<std::string> names;
  for (const Value& one : watch.storebags()) names.push_back(*stringAt(*one.dictionary(), "name"));
  EXPECT_THAT(names, ElementsAre("cadence", "lumen"));
  const Dictionary lumen = bag();
  EXPECT_EQ(*stringAt(lumen, "version"), "1");
  EXPECT_EQ(*arrayAt(lumen, "backends"), (Array{"dashboard", "httpPost"}));
  EXPECT_GT(integerAt(lumen, "modified"), 1'700'000'000);
  for (const char* key : {"inForce", "fetches", "lastFetch", "lastStatus", "error"})
    EXPECT_FALSE(lumen.contains(key)) << key;
}

TEST_F(StorebagWatchTest, WhatWasHandedOutLastIsInForce) {
  watch.note("lumen", 200, false);
  publish("lumen", "2");
  EXPECT_EQ(*stringAt(bag(), "inForce"), "1");
  EXPECT_EQ(*stringAt(bag(), "version"), "2");
  watch.note("lumen", 200, false);
  EXPECT_EQ(*stringAt(bag(), "inForce"), "2");
  watch.note("lumen", 304, false);
  EXPECT_EQ(*stringAt(bag(), "inForce"), "2");
  EXPECT_EQ(integerAt(bag(), "fetches"), 3);
  EXPECT_EQ(integerAt(bag(), "lastStatus"), 304);
}

TEST_F(StorebagWatchTest, WhatAFaultSpoiledIsNotInForce) {
  watch.note("lumen", 200, true);
  EXPECT_FALSE(bag().contains("inForce"));
  watch.note("lumen", 200, false);
  publish("lumen", "2");
  watch.note("lumen", 200, true);
  watch.note("lumen", 503, true);
  EXPECT_EQ(*stringAt(bag(), "inForce"), "1");
  EXPECT_EQ(integerAt(bag(), "lastStatus"), 503);
}

TEST_F(StorebagWatchTest, WhatCannotBeServedSaysWhy) {
  folder.write("lumen.plist", "no list");
  EXPECT_THAT(*stringAt(bag(), "error"), HasSubstr("lumen.plist: "));
  folder.write("lumen.plist", writeXMLPropertyList(Array{1}));
  EXPECT_EQ(*stringAt(bag(), "error"), "the property list is no dictionary");
}

}  // namespace
}  // namespace corvid::lab
