#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "backends/wattbook/WattbookBackend.h"
#include "tests/fakes/TestIdentity.h"
#include "tests/fakes/TestPlatform.h"

namespace corvid {
namespace {

using testing::IsEmpty;

class WattbookBackendTest : public testing::Test {
 protected:
  TestPlatform platform;
  const Dictionary profile{{"active", true}};
  const std::shared_ptr<WattbookBackend> backend =
      WattbookBackend::initWithName("wattbook", &profile, shared());
  const TimeValue time{1'700'000'000, 0};
};

TEST_F(WattbookBackendTest, AnEventIsRecordedWithItsNumbersInThePayload) {
  const Dictionary payload{{"codec", "x"}, {"bits", 9}};
  EXPECT_EQ(backend->sendMessage(&payload, &time, 65535, 2, EventID{258}), std::nullopt);
  const auto records = platform.powerLog->records();
  ASSERT_EQ(records.size(), 1u);
  EXPECT_EQ(records[0].subsystem, 28u);
  EXPECT_EQ(records[0].event, "Cobaltd-CVD");
  EXPECT_EQ(records[0].payload,
            (Dictionary{
                {"codec", "x"}, {"bits", 9}, {"method", 65535}, {"respCode", 2}, {"event", 258}}));
  EXPECT_EQ(payload.size(), 2u) << "the caller's payload is not changed";
}

TEST_F(WattbookBackendTest, KeysOfTheSameNameAreReplaced) {
  const Dictionary payload{{"event", "concert"}, {"method", 1}, {"respCode", Array{}}};
  backend->sendMessage(&payload, nullptr, 3, 4, EventID{5});
  ASSERT_EQ(platform.powerLog->records().size(), 1u);
  EXPECT_EQ(platform.powerLog->records()[0].payload,
            (Dictionary{{"event", 5}, {"method", 3}, {"respCode", 4}}));
}

TEST_F(WattbookBackendTest, MethodZeroIsNotRecorded) {
  const Dictionary payload{{"a", 1}};
  EXPECT_EQ(backend->sendMessage(&payload, &time, 0, 2, EventID{1}), std::nullopt);
  EXPECT_THAT(platform.powerLog->records(), IsEmpty());
}

TEST_F(WattbookBackendTest, AnEmptyOrAbsentPayloadIsNotRecorded) {
  const Dictionary empty;
  EXPECT_EQ(backend->sendMessage(&empty, &time, 7, 2, EventID{1}), std::nullopt);
  EXPECT_EQ(backend->sendMessage(nullptr, &time, 7, 2, EventID{1}), std::nullopt);
  EXPECT_THAT(platform.powerLog->records(), IsEmpty());
}

TEST_F(WattbookBackendTest, TheEntryOfSessionsDoesNotReachThePowerLog) {
  CorvidBackend& base = *backend;
  const Dictionary payload{{"a", 1}};
  EXPECT_EQ(base.sendMessage(&payload, time, 7, 2, MessageFlag{1}), std::nullopt);
  EXPECT_EQ(base.sendMessage(&payload, time, 7, 2, EventID{1}, MessageFlag{1}), std::nullopt);
  EXPECT_THAT(platform.powerLog->records(), IsEmpty());
}

TEST_F(WattbookBackendTest, AnyProfileWillDo) {
  const auto other = WattbookBackend::initWithName("wattbook", nullptr, shared());
  ASSERT_NE(other, nullptr);
  EXPECT_EQ(other->name(), "wattbook");
}

}  // namespace
}  // namespace corvid
