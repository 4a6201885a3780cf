// Posts as the lab receives and writes them down, over TLS; and the text made of them for people.
#include <map>
#include <string>
#include <thread>
#include <vector>

#include "platform/Compressor.h"
#include "tests/support/Scratch.h"
#include "tests/tools/lab/LabFixture.h"
#include "tools/Gzip.h"
#include "tools/lab/Collectors.h"

namespace corvid::lab {
namespace {

using Headers = std::vector<std::string>;

class EventCollectorTest : public LabFixture {
 protected:
  // The only entry that was written down.
  Dictionary entry() {
    const auto entries = received();
    EXPECT_EQ(entries.size(), 1u);
    return entries.empty() ? Dictionary() : entries.front();
  }
};

constexpr const char* emptyPost = R"({"events":[]})";

// The same as a client would compress it.
std::string gzipped(const std::string& text) {
  const auto stream = Compressor().gzipDeflate(text);
  EXPECT_TRUE(stream);
  return stream.value_or("");
}

TEST_F(EventCollectorTest, WritesDownAPlainPost) {
  const std::string body = R"({"events":[{"a":1.5,"text":"gr\u00fc\u00df"}]})";
  const Got got = peer.post(address("events") + "?q=1", body, {"X-CVD-Sender: ZH"});
  EXPECT_EQ(got.status, 200);
  EXPECT_EQ(got.body, "");
  const Dictionary written = entry();
  EXPECT_EQ(*stringAt(written, "server"), "events");
  EXPECT_EQ(*stringAt(written, "target"), "/events?q=1");
  EXPECT_EQ(integerAt(written, "bytes"), static_cast<std::int64_t>(body.size()));
  EXPECT_EQ(*stringAt(*dictionaryAt(written, "headers"), "X-CVD-Sender"), "ZH");
  EXPECT_EQ(
      *written.find("message"),
      Value(Dictionary{{"events", Array{Dictionary{{"a", 1.5}, {"text", "gr\u00fc\u00df"}}}}}));
  EXPECT_FALSE(written.contains("error"));
}

TEST_F(EventCollectorTest, BatchAndRealtimePostsAreToldApart) {
  EXPECT_EQ(peer.post(address("events"), emptyPost).status, 200);
  EXPECT_EQ(peer.post(address("realtime"), emptyPost).status, 200);
  const auto entries = received();
  ASSERT_EQ(entries.size(), 2u);
  EXPECT_EQ(*stringAt(entries[0], "server"), "events");
  EXPECT_EQ(*stringAt(entries[1], "server"), "realtime");
}

TEST_F(EventCollectorTest, CompressedPostsAreWrittenDownDecoded) {
  const std::string body = gzipped("{\"events\":[" + std::string(50'000, ' ') + "{}]}");
  EXPECT_EQ(peer.post(address("events"), body, {"Content-Encoding: gzip"}).status, 200);
  const Dictionary written = entry();
  EXPECT_EQ(*written.find("message"), Value(Dictionary{{"events", Array{Dictionary{}}}}));
  EXPECT_EQ(integerAt(written, "bytes"), static_cast<std::int64_t>(body.size()));
}

TEST_F(EventCollectorTest, EncodingsAreNamedInWhateverCase) {
  EXPECT_EQ(peer.post(address("events"), gzipped(emptyPost), {"Content-Encoding: GZip"}).status,
            200);
  EXPECT_EQ(peer.post(address("events"), emptyPost, {"Content-Encoding: Identity"}).status, 200);
  EXPECT_EQ(peer.post(address("events"), emptyPost, {"Content-Encoding: br"}).status, 400);
  EXPECT_EQ(*stringAt(received().at(2), "error"),
            "the body is encoded as br, which nobody reads here");
}

TEST_F(EventCollectorTest, ABodyThatIsNoGzipIsRefusedAndWrittenDown) {
  const std::string whole = gzipped(emptyPost);
  std::string damaged = whole;
  damaged[whole.size() / 2] ^= 1;
  for (const std::string& body :
       {std::string(emptyPost), std::string(), whole.substr(0, 12), damaged, whole + "x"}) {
    const Got got = peer.post(address("events"), body, {"Content-Encoding: gzip"});
    EXPECT_EQ(got.status, 400);
    EXPECT_EQ(got.body, "the body is not gzip of 64 MiB at most\n");
  }
  ASSERT_EQ(received().size(), 5u);
  for (const Dictionary& written : received()) {
    EXPECT_EQ(*stringAt(written, "error"), "the body is not gzip of 64 MiB at most");
    EXPECT_FALSE(written.contains("message"));
  }
}

TEST_F(EventCollectorTest, ABodyThatIsNotJSONIsRefusedAndWrittenDown) {
  const Got got = peer.post(address("realtime"), "{\"a\":}");
  EXPECT_EQ(got.status, 400);
  const Dictionary written = entry();
  EXPECT_EQ(stringAt(written, "error")->find("the body is not JSON: "), 0u);
  EXPECT_EQ(got.body, *stringAt(written, "error") + "\n");
  EXPECT_EQ(integerAt(written, "bytes"), 6);
}

TEST_F(EventCollectorTest, JSONThatIsNoPostIsRefusedAndWrittenDown) {
  const std::vector<std::pair<std::string, std::string>> bodies{
      {"[]", "the body is no JSON object"},
      {"{}", "the object has no array \"events\""},
      {R"({"events":{}})", "the object has no array \"events\""},
      {R"({"events":[{},1]})", "an event is no object"},
  };
  for (const auto& [body, line] : bodies) {
    const Got got = peer.post(address("events"), body);
    EXPECT_EQ(got.status, 400) << body;
    EXPECT_EQ(got.body, line + "\n");
    const Dictionary written = received().back();
    EXPECT_EQ(*stringAt(written, "error"), line);
    EXPECT_EQ(*written.find("message"), parseJSON(body).value());
  }
}

TEST_F(EventCollectorTest, APostThatUnpacksToMoreThanDevicesHaveIsRefused) {
  const std::string padding((std::size_t{64} << 20) - 20, ' ');
  EXPECT_EQ(peer.post(address("events"), gzipped("{\"events\":[" + padding + "]}"),
                      {"Content-Encoding: gzip"})
                .status,
            200);
  EXPECT_EQ(peer.post(address("events"), gzipped("{\"events\":[]," + padding + "       \"a\":1}"),
                      {"Content-Encoding: gzip"})
                .status,
            400);
}

TEST_F(EventCollectorTest, AnythingButPOSTIsRefusedAndNotWrittenDown) {
  EXPECT_EQ(peer.get(address("events")).status, 405);
  EXPECT_TRUE(received().empty());
}

TEST_F(EventCollectorTest, OtherTargetsAreNotFound) {
  EXPECT_EQ(peer.post(address("events") + "/more", "{}").status, 404);
  EXPECT_TRUE(received().empty());
}

TEST_F(EventCollectorTest, WhatJSONCannotHoldIsSaidInItsPlace) {
  EXPECT_EQ(peer.post(address("events"), emptyPost, {"X-Odd: \xff"}).status, 200);
  EXPECT_EQ(*stringAt(entry(), "error"), "received something that JSON cannot hold");
}

// From threads as the server's connections have them, and with nothing else to do: so they meet.
TEST_F(EventCollectorTest, PostsThatComeAtOnceAreWrittenDownWhole) {
  ReceivedLog log(root.path("lab/received.jsonl"));
  const Collectors collectors(log);
  constexpr int rounds = 100;
  std::map<std::string, int> expected;
  std::vector<std::thread> connections;
  for (const char letter : std::string("abcdefgh")) {
    const std::string text(30'000, letter);
    expected[text] = rounds;
    connections.emplace_back([&collectors, body = "{\"events\":[],\"long\":\"" + text + "\"}"] {
      for (int round = 0; round < rounds; ++round)
        EXPECT_EQ(collectors.events("events", {.method = "POST", .body = body}).status, 200);
    });
  }
  for (auto& thread : connections) thread.join();
  std::map<std::string, int> written;
  for (const Dictionary& each : received())
    if (const Dictionary* message = dictionaryAt(each, "message"))
      ++written[*stringAt(*message, "long")];
  EXPECT_TRUE(written == expected);
}

TEST(ReceivedLogTest, AFileThatCannotBeWrittenIsAnError) {
  EXPECT_THROW(ReceivedLog("/nonexistent/received.jsonl"), std::runtime_error);
}

TEST(ReceivedLogTest, AppendsToWhatIsThere) {
  const ScratchRoot root;
  root.write("log", "{\"before\":1}\n");
  ReceivedLog(root.path("log")).append({{"now", 2}});
  const std::string text = contentOf(root.path("log"));
  EXPECT_EQ(text, "{\"before\":1}\n{\"now\":2}\n");
}

TEST(GunzipTest, GivesTheContentOfAStream) {
  for (const std::string& content : {std::string("x"), std::string(100'000, 'y')})
    EXPECT_EQ(gunzip(gzipped(content)), content);
}

TEST(GunzipTest, RefusesMoreThanTheLimit) {
  const std::string stream = gzipped(std::string(100'000, 'y'));
  EXPECT_EQ(gunzip(stream, 100'000)->size(), 100'000u);
  EXPECT_EQ(gunzip(stream, 99'999), std::nullopt);
}

TEST(ReceivedSummaryTest, NamesTheServerTheLabelsAndEveryEvent) {
  EXPECT_EQ(
      summary({{"server", "events"},
               {"bytes", 120},
               {"headers", Dictionary{{"Content-Encoding", "gzip"}, {"X-CVD-Sender", "ZH"}}},
               {"message", Dictionary{{"events", Array{Dictionary{{"_eventNumber", 1},
                                                                  {"_method", 7},
                                                                  {"_status", 2},
                                                                  {"eventTime", 5},
                                                                  {"action", "play"},
                                                                  {"n", 5}},
                                                       Dictionary{{"_method", 0}}, "no event"}}}}}),
      "events received 120 bytes, gzip, from sender ZH\n"
      "    event 1 method 7 status 2: action=play n=5\n"
      "    event - method 0 status -:\n");
}

TEST(ReceivedSummaryTest, SaysWhatCouldNotBeRead) {
  EXPECT_EQ(summary({{"server", "realtime"}, {"bytes", 3}, {"error", "the body is not gzip"}}),
            "realtime received 3 bytes\n    error: the body is not gzip\n");
  EXPECT_EQ(summary({{"message", Dictionary{{"events", "none"}}}}), "- received - bytes\n");
}

}  // namespace
}  // namespace corvid::lab
