#include <fmt/format.h>
#include <gmock/gmock.h>

#include "gateway/loader/LoaderLedger.h"
#include "gateway/loader/Monitor.h"
#include "tests/support/ToolProcess.h"

namespace corvid::fleet {
namespace {

using ::testing::HasSubstr;

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

TEST(Monitor, SaysWhatIsNoAddress) {
  for (const char* const address : {"", "localhost:1", "127.0.0.1", "127.0.0.1:x", "300.1.1.1:1"})
    EXPECT_THROW(Monitor(address, {}), std::runtime_error) << address;
}

}  // namespace
}  // namespace corvid::fleet
