#include <fmt/format.h>
#include <gmock/gmock.h>
#include <sys/socket.h>

#include <chrono>
#include <stdexcept>
#include <thread>

#include "base/Descriptor.h"
#include "gateway/loader/LoaderLedger.h"
#include "gateway/loader/Monitor.h"
#include "tests/support/Loopback.h"
#include "tests/support/ToolProcess.h"

namespace corvid::fleet {
namespace {

using ::testing::HasSubstr;

Descriptor connectTo(std::uint16_t port) {
  Descriptor socket = connectOnLoopback(port);
  if (!socket) throw std::runtime_error("no monitor");
  return socket;
}

std::string ask(const Monitor& monitor, const std::string& path) {
  return runTool("curl", {"-s", "-m", "5", "-w", " %{http_code}",
                          fmt::format("http://127.0.0.1:{}{}", monitor.port(), path)})
      .output;
}

TEST(Monitor, TellsTheLedgerAndWhetherItIsReady) {
  LoaderLedger ledger;
  ledger.received(7);
  ledger.decided({.stored = 3, .repeated = 2, .rejected = 1, .rows = 30});
  const Monitor monitor("127.0.0.1:0", {.metrics = [&] { return ledger.metrics(); },
                                        .isReady = [&] { return ledger.isReading(); }});
  const std::string metrics = ask(monitor, "/metrics");
  for (const char* const line :
       {"corvid_loader_received_total 7\n", "corvid_loader_stored_total 3\n",
        "corvid_loader_repeated_total 2\n", "corvid_loader_rejected_total 1\n",
        "corvid_loader_held 1\n", "corvid_loader_rows_total 30\n", "# EOF\n"})
    EXPECT_THAT(metrics, HasSubstr(line));
  EXPECT_EQ(ask(monitor, "/healthz"), "not ready\n 503");
  ledger.setReading(true);
  EXPECT_EQ(ask(monitor, "/healthz"), "ready\n 200");
  EXPECT_THAT(ask(monitor, "/other"), HasSubstr(" 404"));
}

TEST(Monitor, ACallerWhoNeverEndsItsRequestHoldsTheNextUpForSecondsOnly) {
  const Monitor monitor("127.0.0.1:0", {.metrics = [] { return std::string("# EOF\n"); },
                                        .isReady = [] { return true; }});
  const Descriptor slow = connectTo(monitor.port());
  std::jthread trickle([&](const std::stop_token& stop) {
    while (!stop.stop_requested() && send(slow.get(), "x", 1, MSG_NOSIGNAL) == 1)
      std::this_thread::sleep_for(std::chrono::milliseconds(50));
  });
  const auto asked = std::chrono::steady_clock::now();
  EXPECT_EQ(ask(monitor, "/healthz"), "ready\n 200");
  EXPECT_LT(std::chrono::steady_clock::now() - asked, std::chrono::milliseconds(4500));
  trickle.request_stop();
  trickle.join();
  char byte = 0;
  EXPECT_LE(recv(slow.get(), &byte, 1, 0), 0) << "it got an answer";
}

TEST(Monitor, SaysWhatIsNoAddress) {
  for (const char* const address : {"", "localhost:1", "127.0.0.1", "127.0.0.1:x", "300.1.1.1:1"})
    EXPECT_THROW(Monitor(address, {}), std::runtime_error) << address;
}

}  // namespace
}  // namespace corvid::fleet
