// Storebags as a client gets them, over TLS.
#include <fcntl.h>
#include <sys/stat.h>

#include <ctime>

#include "platform/data/Crypto.h"
#include "platform/data/PropertyList.h"
#include "tests/support/SigningKeys.h"
#include "tests/tools/lab/LabFixture.h"

namespace corvid::lab {
namespace {

class StorebagServerTest : public LabFixture {
 protected:
  void publish(const std::string& name, const std::string& bytes, std::time_t modified = 0) {
    root.write("lab/storebags/" + name + ".plist", bytes);
    if (modified == 0) return;
    const timespec times[2] = {{modified, 0}, {modified, 0}};
    ASSERT_EQ(utimensat(AT_FDCWD, root.path("lab/storebags/" + name + ".plist").c_str(), times, 0),
              0);
  }
  void publish(const std::string& name, const Dictionary& bag, std::time_t modified = 0) {
    publish(name, writeXMLPropertyList(Value(bag)), modified);
  }
  // The bag in an answer, whose signature must be the lab's.
  Dictionary bagIn(const Got& got) {
    EXPECT_EQ(got.status, 200) << got.body;
    const Dictionary envelope = dictionaryIn(got.body);
    const auto bag = decoded(envelope, "bag");
    const std::string der = contentOf(root.path("usr/share/corvid/publicKey.der"));
    EXPECT_TRUE(
        RSAPublicKey::fromDER(der).value().verifies(sha1(bag), decoded(envelope, "signature")));
    return dictionaryIn(bag);
  }
  Got conditional(const std::string& name, const std::string& date) {
    return peer.get(bagURL(name), nullptr, {"If-Modified-Since: " + date});
  }

 private:
  static Dictionary dictionaryIn(std::string_view bytes) {
    const Result<Value> list = parsePropertyList(bytes);
    EXPECT_TRUE(list && list.value().dictionary()) << bytes;
    return list && list.value().dictionary() ? *list.value().dictionary() : Dictionary();
  }
  static std::string decoded(const Dictionary& envelope, std::string_view key) {
    const std::string* text = stringAt(envelope, key);
    return base64DecodeIgnoringUnknownCharacters(text ? *text : "").value_or("");
  }
};

bool hasHeader(const Got& got, const std::string& line) {
  return got.head.find(line + "\r\n") != std::string::npos;
}

TEST_F(StorebagServerTest, SignsWhatStandsInTheFolder) {
  const Dictionary bag{{"version", "7"}, {"list", Array{1, true, Date{0}, Data{"x"}}}};
  publish("lumen", bag);
  EXPECT_EQ(bagIn(peer.get(bagURL("lumen"))), bag);
  EXPECT_EQ(bagIn(peer.get(address("storebags") + "/storebags/birch/lumen")), bag);
  EXPECT_EQ(bagIn(peer.get(bagURL("lumen") + "?os=1&x=/../y")), bag);
}

TEST_F(StorebagServerTest, BinaryListsAreSignedAsWell) {
  const Dictionary bag{{"version", "b"}};
  publish("lumen", writeBinaryPropertyList(Value(bag)));
  EXPECT_EQ(bagIn(peer.get(bagURL("lumen"))), bag);
}

TEST_F(StorebagServerTest, PlaceholdersBecomeAddressesWhereverTheyStand) {
  publish("lumen", {{"a", Dictionary{{"b", Array{"${events}", "x${events}", "${events"}}}},
                    {"c", "${realtime}"}});
  EXPECT_EQ(
      bagIn(peer.get(bagURL("lumen"))),
      (Dictionary{{"a", Dictionary{{"b", Array{address("events"), "x${events}", "${events"}}}},
                  {"c", address("realtime")}}));
}

TEST_F(StorebagServerTest, AnEditedListIsPublishedAtTheNextRequest) {
  publish("lumen", {{"version", "1"}});
  EXPECT_EQ(bagIn(peer.get(bagURL("lumen"))), (Dictionary{{"version", "1"}}));
  publish("lumen", {{"version", "2"}});
  EXPECT_EQ(bagIn(peer.get(bagURL("lumen"))), (Dictionary{{"version", "2"}}));
}

TEST_F(StorebagServerTest, SaysWhenItWasModifiedAndHowLongItMayBeKept) {
  publish("lumen", {{"version", "1"}}, 1'700'000'000);
  const Got got = peer.get(bagURL("lumen"));
  EXPECT_TRUE(hasHeader(got, "Last-Modified: Tue, 14 Nov 2023 22:13:20 GMT")) << got.head;
  EXPECT_TRUE(hasHeader(got, "Cache-Control: max-age=86400"));
  EXPECT_TRUE(hasHeader(got, "Content-Type: application/x-plist"));
}

TEST_F(StorebagServerTest, AConditionalRequestGetsTheBagOnlyWhereItChanged) {
  publish("lumen", {{"version", "1"}}, 1'700'000'000);
  const Got same = conditional("lumen", "Tue, 14 Nov 2023 22:13:20 GMT");
  EXPECT_EQ(same.status, 304);
  EXPECT_EQ(same.body, "");
  EXPECT_TRUE(hasHeader(same, "Cache-Control: max-age=86400"));
  EXPECT_TRUE(hasHeader(same, "Last-Modified: Tue, 14 Nov 2023 22:13:20 GMT"));
  publish("lumen", {{"version", "2"}}, 1'700'000'001);
  EXPECT_EQ(bagIn(conditional("lumen", "Tue, 14 Nov 2023 22:13:20 GMT")),
            (Dictionary{{"version", "2"}}));
  EXPECT_EQ(conditional("lumen", "nonsense").status, 200);
}

TEST_F(StorebagServerTest, WhatIsNotPublishedIsNotFound) {
  root.write("lab/storebags/.hidden.plist", writeXMLPropertyList(Value(Dictionary{})));
  for (const char* target : {"/bags/birch/nothing", "/bags/birch/", "/bags/birch/.hidden",
                             "/bags/birch/%2e%2e/lab", "/bags/oak/lumen", "/", "/bags/birch/a/b"})
    EXPECT_EQ(peer.get(address("storebags") + target).status, 404) << target;
}

TEST_F(StorebagServerTest, AnythingButGETIsRefused) {
  EXPECT_EQ(peer.post(bagURL("lumen"), "x").status, 405);
}

TEST_F(StorebagServerTest, AListThatCannotBeReadIsAnErrorThatNamesIt) {
  publish("lumen", std::string("no property list"));
  const Got got = peer.get(bagURL("lumen"));
  EXPECT_EQ(got.status, 500);
  EXPECT_EQ(got.body.find(root.path("lab/storebags/lumen.plist: ")), 0u) << got.body;
}

TEST_F(StorebagServerTest, EveryStorebagNameIsThereFromTheStart) {
  for (const char* name :
       {"lumen", "tessel", "parlor", "orrery", "cadence", "quill", "ledger", "folio", "reel"}) {
    const Dictionary bag = bagIn(peer.get(bagURL(name)));
    EXPECT_EQ(*stringAt(bag, "version"), std::string("1.0.0-") + name);
    for (const char* environment : {"development", "halcyon_internal", "seed", "release"})
      EXPECT_NE(dictionaryAt(bag, environment), nullptr) << environment;
  }
}

TEST(StorebagServerOptions, TheMaximumAgeIsAnOption) {
  const ScratchLab root;
  const Lab lab(root.path(), {.maxAge = 5});
  const Got got = Peer(root.path("lab/tls/ca.pem"))
                      .get(*stringAt(lab.addresses(), "storebags") + "/bags/birch/lumen");
  EXPECT_TRUE(hasHeader(got, "Cache-Control: max-age=5")) << got.head;
}

}  // namespace
}  // namespace corvid::lab
