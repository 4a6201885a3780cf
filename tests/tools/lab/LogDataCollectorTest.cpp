// Log data as the lab receives it, and what it tells people of that and of packets.
#include "platform/data/PropertyList.h"
#include "tests/tools/lab/LabFixture.h"

namespace corvid::lab {
namespace {

class LogDataCollectorTest : public LabFixture {};

TEST_F(LogDataCollectorTest, WritesDownAnArrayAndSaysWhereItIs) {
  const auto archive = archivedData({"a line", Data{std::string("\0\1", 2)}, Date{5}, 7});
  ASSERT_TRUE(archive);
  const Got first = peer.post(address("logData"), *archive, {"Content-Type: text/odd"});
  EXPECT_EQ(first.status, 200);
  EXPECT_EQ(first.body, "lab/log-data/1");
  EXPECT_EQ(peer.post(address("logData"), *archive).body, "lab/log-data/2");
  const auto entries = received();
  ASSERT_EQ(entries.size(), 2u);
  EXPECT_EQ(*stringAt(entries[0], "server"), "logData");
  EXPECT_EQ(*stringAt(*dictionaryAt(entries[0], "headers"), "Content-Type"), "text/odd");
  EXPECT_EQ(integerAt(entries[0], "bytes"), static_cast<std::int64_t>(archive->size()));
  EXPECT_EQ(*entries[0].find("logData"),
            Value(Array{"a line", Dictionary{{"$data", "AAE="}}, Dictionary{{"$date", 5.0}}, 7}));
}

TEST_F(LogDataCollectorTest, RefusesWhatIsNoArrayAndWritesItDown) {
  EXPECT_EQ(peer.post(address("logData"), "nonsense").status, 400);
  const Got dictionary =
      peer.post(address("logData"), "<plist version=\"1.0\"><dict></dict></plist>");
  EXPECT_EQ(dictionary.status, 400);
  EXPECT_EQ(dictionary.body, "the property list is no array\n");
  EXPECT_EQ(peer.get(address("logData")).status, 405);
  const auto entries = received();
  ASSERT_EQ(entries.size(), 2u);
  EXPECT_EQ(stringAt(entries[0], "error")->find("the body is no property list: "), 0u);
  EXPECT_EQ(*stringAt(entries[1], "error"), "the property list is no array");
  EXPECT_FALSE(entries[1].contains("logData"));
}

TEST_F(LogDataCollectorTest, MisbehavesWhereItIsTold) {
  const auto plan = [&](const std::string& json) {
    return Peer("").post(address("control"), json);
  };
  EXPECT_EQ(plan(R"({"server":"logData","status":503})").status, 200);
  EXPECT_EQ(peer.post(address("logData"), "x").status, 503);
}

TEST(ReceivedSummaryTest, ShowsLogDataAndPackets) {
  EXPECT_EQ(summary({{"server", "logData"},
                     {"bytes", 72},
                     {"headers", Dictionary{}},
                     {"logData", Array{"a line", 7}}}),
            "logData received 72 bytes, from sender -\n    log data: [\"a line\",7]\n");
  EXPECT_EQ(summary({{"server", "dashboard"},
                     {"bytes", 68},
                     {"packet", Dictionary{{"eventID", 258},
                                           {"method", 7},
                                           {"respCode", 2},
                                           {"payload", Dictionary{{"a", "b"}}}}}}),
            "dashboard received 68 bytes\n    packet 258 method 7 status 2: a=b\n");
  EXPECT_EQ(summary({{"server", "dashboard"}, {"bytes", 8}, {"error", "8 bytes are no packet"}}),
            "dashboard received 8 bytes\n    error: 8 bytes are no packet\n");
}

}  // namespace
}  // namespace corvid::lab
