// What corvid-fleet finds in a database.
#include <gtest/gtest.h>

#include "bench/devices/DevicePosts.h"
#include "bench/devices/StoredCheck.h"
#include "tests/gateway/loader/LoaderFixture.h"

namespace corvid::bench {
namespace {

constexpr int eventsEach = 3;

class StoredCheckTest : public fleet::LoaderFixture {
 protected:
  StoredCheckTest() {
    _tally.run = DevicePosts::newRun();
    _tally.eventsEach = eventsEach;
  }

  // A message as a gateway makes it of the device's post that begins with that number.
  fleet::LoggedMessage posted(std::uint64_t first, const std::string& id) const {
    const std::string now = std::to_string(time(nullptr)) + ".000000";
    fleet::LoggedMessage logged;
    logged.message = {
        .stream = "events",
        .id = id,
        .headers = {{"received", now}},
        .body = fleetBody(
            {.client = DevicePosts::client(_tally.run, 7), .first = first, .count = eventsEach})};
    return logged;
  }
  void store(std::uint64_t first, const std::string& id) { _store.store({posted(first, id)}); }
  void sent(std::uint64_t first, int status) { _tally.answered({7, first}, false, status); }
  Stored found() const { return findStored(_tally, _server->target(), std::chrono::seconds(0)); }

  fleet::Store _store{_server->target()};
  Tally _tally;
};

TEST_F(StoredCheckTest, WhatWasAcknowledgedAndStoredIsSound) {
  for (const std::uint64_t first : {1u, 4u}) {
    sent(first, 200);
    store(first, "id-" + std::to_string(first));
  }
  _tally.cut({7, 7});
  store(7, "id-7");
  const Stored stored = found();
  EXPECT_TRUE(stored.isSound());
  EXPECT_EQ(stored.acknowledged, 6u);
  EXPECT_EQ(stored.stored, 9u);
}

TEST_F(StoredCheckTest, WhatIsMissingIsLost) {
  sent(1, 200);
  sent(4, 200);
  store(4, "id");
  EXPECT_EQ(found().lost, 3u);
  EXPECT_FALSE(found().isSound());
}

TEST_F(StoredCheckTest, WhatIsThereUnderTwoMessagesCameTwice) {
  sent(1, 200);
  store(1, "id-1");
  store(1, "id-2");
  EXPECT_EQ(found().twice, 3u);
  EXPECT_EQ(found().lost, 0u);
}

TEST_F(StoredCheckTest, WhatWasRefusedMustNotBeThere) {
  sent(1, 400);
  store(1, "id");
  EXPECT_EQ(found().refused, 3u);
  EXPECT_FALSE(found().isSound());
}

TEST_F(StoredCheckTest, OtherRunsDoNotCount) {
  store(1, "id");
  _tally.run = DevicePosts::newRun();
  EXPECT_EQ(found().stored, 0u);
}

}  // namespace
}  // namespace corvid::bench
