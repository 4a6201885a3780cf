#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "backends/wattbook/WattbookBackend.h"
#include "tests/fakes/TestIdentity.h"
#include "tests/fakes/TestPlatform.h"

namespace corvid {
namespace {

using testing::IsEmpty;

class PowerRecordWriterTest : public testing::Test {
 protected:
  TestPlatform platform;
  const PowerRecordWriter writer{*platform.powerLog};
};

TEST_F(PowerRecordWriterTest, AnEventIsRecordedWithItsNumbersInThePayload) {
  const Dictionary payload{{"codec", "x"}, {"bits", 9}};
  writer.record(&payload, 65535, 2, EventID{258});
  const auto records = platform.powerLog->records();
  ASSERT_EQ(records.size(), 1u);
  EXPECT_EQ(records[0].subsystem, 28u);
  EXPECT_EQ(records[0].event, "Cobaltd-CVD");
  EXPECT_EQ(records[0].payload,
            (Dictionary{
                {"codec", "x"}, {"bits", 9}, {"method", 65535}, {"respCode", 2}, {"event", 258}}));
  EXPECT_EQ(payload.size(), 2u) << "the caller's payload is not changed";
}

TEST_F(PowerRecordWriterTest, KeysOfTheSameNameAreReplaced) {
  const Dictionary payload{{"event", "concert"}, {"method", 1}, {"respCode", Array{}}};
  writer.record(&payload, 3, 4, EventID{5});
  ASSERT_EQ(platform.powerLog->records().size(), 1u);
  EXPECT_EQ(platform.powerLog->records()[0].payload,
            (Dictionary{{"event", 5}, {"method", 3}, {"respCode", 4}}));
}

TEST_F(PowerRecordWriterTest, MethodZeroIsNotRecorded) {
  const Dictionary payload{{"a", 1}};
  writer.record(&payload, 0, 2, EventID{1});
  EXPECT_THAT(platform.powerLog->records(), IsEmpty());
}

TEST_F(PowerRecordWriterTest, AnEmptyOrAbsentPayloadIsNotRecorded) {
  const Dictionary empty;
  writer.record(&empty, 7, 2, EventID{1});
  writer.record(nullptr, 7, 2, EventID{1});
  EXPECT_THAT(platform.powerLog->records(), IsEmpty());
}

class WattbookBackendTest : public testing::Test {
 protected:
  TestPlatform platform;
};

TEST_F(WattbookBackendTest, TheEntryOfSessionsDoesNotReachThePowerLog) {
  const Dictionary profile{{"active", true}};
  WattbookBackend backend("wattbook", &profile, shared());
  const Dictionary payload{{"a", 1}};
  EXPECT_EQ(backend.sendMessage(&payload, {}, 7, 2, MessageFlag{1}), std::nullopt);
  EXPECT_EQ(backend.sendMessage(&payload, {}, 7, 2, EventID{1}, MessageFlag{1}), std::nullopt);
  EXPECT_THAT(platform.powerLog->records(), IsEmpty());
  backend.records().record(&payload, 7, 2, EventID{1});
  EXPECT_EQ(platform.powerLog->records().size(), 1u) << "its owner may";
}

TEST_F(WattbookBackendTest, AnyProfileWillDo) {
  const WattbookBackend backend("wattbook", nullptr, shared());
  EXPECT_EQ(backend.name(), "wattbook");
}

}  // namespace
}  // namespace corvid
