// A fleet's whole way, on this machine's loopback, with what goes wrong on it: simulated devices
// and a real daemon, nginx, gateways, the log's three nodes, a loader and PostgreSQL. Ends with 0
// where nothing that was acknowledged is lost or stands there twice.
#include <fmt/format.h>

#include <chrono>
#include <cstdio>
#include <exception>
#include <stdexcept>
#include <string>

#include "gateway/loader/Database.h"
#include "tests/gateway/demo/RealDevice.h"
#include "tests/gateway/engines/RabbitCluster.h"
#include "tests/gateway/engines/ScratchFleet.h"
#include "tests/support/ToolProcess.h"

namespace corvid::fleet {
namespace {

using Steady = std::chrono::steady_clock;
using std::chrono::seconds;

constexpr const char* stream = "events";
const Steady::time_point began = Steady::now();

template <class... Values>
void say(fmt::format_string<Values...> text, Values&&... values) {
  fmt::print("[{:5.1f} s] {}\n", std::chrono::duration<double>(Steady::now() - began).count(),
             fmt::format(text, std::forward<Values>(values)...));
  std::fflush(stdout);
}

void require(bool holds, const std::string& what) {
  if (!holds) throw std::runtime_error(what);
}

class Demo {
 public:
  // Whether everything adds up.
  bool run() {
    startEngines();
    play();
    return judge();
  }

 private:
  void startEngines() {
    say("three nodes of the log, which find each other");
    require(_log.awaitAll(seconds(90)), "the log's nodes do not come up: " + _log.lastWords(0));
    say("PostgreSQL, two gateways, a loader, and nginx before them");
    _fleet.emplace(ScratchFleet::Setup{.logURL = _log.url()}, _real.identity());
    _fleet->awaitReady();
    say("a real corvidd, which trusts nginx's certificate, and a client of it");
    _real.start(_fleet->nginx().url("/v1/events"));
  }

  void play() {
    say("200 simulated devices for 40 s: some of their posts are wrong, broken off or come twice");
    ToolProcess devices(CORVID_FLEET_PROGRAM, {_fleet->nginx().url("/v1/events"),
                                               "--ca-file",
                                               _fleet->nginx().caFile(),
                                               "--devices",
                                               "200",
                                               "--rate",
                                               "60",
                                               "--events",
                                               "10",
                                               "--seconds",
                                               "40",
                                               "--wrong",
                                               "3",
                                               "--dropped",
                                               "3",
                                               "--again",
                                               "3",
                                               "--slow",
                                               "3",
                                               "--database",
                                               _fleet->postgres().target()});
    reportFor(seconds(8));
    const std::size_t leader = _log.leaderOf(stream).value_or(0);
    say("kill -9 of the log's leader, node {}", leader);
    _log.kill(leader);
    reportFor(seconds(8));
    say("node {} starts again", leader);
    _log.start(leader);
    reportFor(seconds(6));
    say("kill -9 of gateway 0; nginx passes its posts to the other one");
    _fleet->gateway(0).kill();
    reportFor(seconds(8));
    say("gateway 0 starts again");
    _fleet->gateway(0).start();
    reportFor(seconds(6));
    say("the devices have their last answers; the loader stores the rest");
    std::optional<int> status;
    for (int tries = 0; tries < 6 && !status; ++tries) status = devices.finish();
    fmt::print("{}{}", devices.output(), devices.errors());
    _simulatedAreSound = status == 0;
  }

  // The real daemon sends a batch each second, and what is stored by then is told.
  void reportFor(seconds time) {
    const auto end = Steady::now() + time;
    for (auto next = Steady::now(); next < end;) {
      _real.send(5);
      next += seconds(1);
      (void)waitUntil([&] { return Steady::now() >= next; }, seconds(5),
                      std::chrono::milliseconds(20));
      next = std::max(next, Steady::now());
    }
    say("    {} events stored", ask("SELECT count(*) FROM corvid.event"));
  }

  bool judge() {
    // Rows that simulated devices sent have a number under "sequence".
    const std::string real = " FROM corvid.event WHERE NOT payload ? 'sequence'";
    const RealDevice::Account account = _real.account();
    (void)waitUntil(
        [&] { return std::stoull(ask("SELECT count(*)" + real)) >= account.delivered; });
    const std::uint64_t rows = std::stoull(ask("SELECT count(*)" + real));
    const std::uint64_t once =
        std::stoull(ask("SELECT count(DISTINCT (session, event_number))" + real));
    const std::uint64_t lost = account.delivered > once ? account.delivered - once : 0;
    fmt::print("corvidd   {} events sent, {} acknowledged, {} rows: {} lost, {} twice\n",
               account.accepted, account.delivered, rows, lost, rows - once);
    say("all are told to stop");
    require(_fleet->stop(), "a gateway or the loader did not end with 0");
    return _simulatedAreSound && account.delivered > 0 && lost == 0 && rows == once;
  }

  std::string ask(const std::string& question) {
    return Database(_fleet->postgres().target()).run(question).at(0).at(0).value_or("");
  }

  RabbitCluster _log;
  RealDevice _real;
  std::optional<ScratchFleet> _fleet;
  bool _simulatedAreSound = false;
};

}  // namespace
}  // namespace corvid::fleet

int main() {
  try {
    const bool isSound = corvid::fleet::Demo().run();
    fmt::print("fleet-demo: {}\n", isSound ? "nothing that was acknowledged is lost or there twice"
                                           : "FAILED: the counts above do not add up");
    return isSound ? 0 : 1;
  } catch (const std::exception& error) {
    fmt::print(stderr, "fleet-demo: FAILED: {}\n", error.what());
    return 1;
  }
}
