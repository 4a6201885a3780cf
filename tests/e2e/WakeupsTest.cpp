// How often an event wakes the daemon's threads: on a device that is what costs most.
#include <gtest/gtest.h>

#include <string>

#include "tests/e2e/LabFixture.h"
#include "tests/support/Waiting.h"

namespace corvid {
namespace {

class Wakeups : public LabFixture {
 protected:
  static constexpr int events = 200;

  // Of a batched event, on average. Each is answered before the next is sent, and has arrived in
  // the end.
  double wakeUpsOfAnEvent() {
    Dictionary entry = batchesForEverybody();
    entry.set("event_threshold", 2 * events);
    publish("lumen", storebagPostingTo(urlOf("events"), entry));
    startDaemon();
    TestClient client(_root.path());
    EXPECT_EQ(client.configure({.batches = true}).text(), "httpPost");
    send(client, "before");
    const std::size_t before = _daemon->sleeps();
    for (int i = 0; i < events; ++i) send(client, "event");
    const std::size_t after = _daemon->sleeps();
    EXPECT_EQ(client.flush().text(), "flushed");
    EXPECT_TRUE(waitUntil([&] { return arrivals("event") == events; }));
    return static_cast<double>(after - before) / events;
  }

 private:
  static void send(TestClient& client, const std::string& mark) {
    EXPECT_EQ(client.send(mark).text(), "none");
  }
};

TEST_F(Wakeups, ABatchedEventWakesTheDaemonOnce) { EXPECT_LE(wakeUpsOfAnEvent(), 1.1); }

}  // namespace
}  // namespace corvid
