// bench/dashboard: what a packet costs the process that sends it, and what dashboards cost a daemon
// in which nothing happens.
//
// The daemon has ten sessions with a dashboard in reliable mode. The context switches of all its
// threads are counted over the seconds; then again around one event, to show that they would be
// seen.
#include <fmt/format.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <list>
#include <string>
#include <thread>

#include "bench/Bench.h"
#include "bench/DashboardSending.h"
#include "bench/Program.h"
#include "platform/data/PropertyList.h"
#include "tools/lab/DashboardServer.h"

#ifndef CORVID_DAEMON
#error "CORVID_DAEMON names the daemon to measure"
#endif

namespace corvid::bench {
namespace {

constexpr int dashboards = 10;
constexpr int dashboardClient = 17;  // storebag "reel"

// Of all threads, voluntary or not, so far.
long contextSwitches(const MeasuredProcess& process) {
  long count = 0;
  for (const auto& thread :
       std::filesystem::directory_iterator(fmt::format("/proc/{}/task", process.pid()))) {
    std::ifstream status(thread.path() / "status");
    for (std::string line; std::getline(status, line);)
      if (const auto at = line.find("ctxt_switches:"); at != std::string::npos)
        count += std::stol(line.substr(line.find(':') + 1));
  }
  return count;
}

void printSending(int packets, int rounds) {
  const SendingCost cost = measureSending(packets, rounds);
  fmt::print("CPU, us a packet of {} bytes (medians of {} rounds of {})\n", cost.bytes, rounds,
             packets);
  const auto print = [&](const char* name, double micros) {
    fmt::print("  {:44}{:>8.2f}{:>8.2f} times a bare send\n", name, micros, micros / cost.bareSend);
  };
  print("bare send of the same bytes", cost.bareSend);
  print("building the packet and its log line", cost.build);
  print("plain backend: built, handed over, sent", cost.plain);
  print("reliable backend: also kept and acknowledged", cost.reliable);
}

void printIdle(const std::string& folder, const std::string& corvidd, int seconds) {
  Bench bench(folder);
  lab::DashboardServer server([](const Dictionary&) {});
  const Dictionary section{
      {"dashboard", Dictionary{{"ip", "127.0.0.1"}, {"port", server.port()}, {"reliable", 500}}}};
  std::ofstream(folder + "/lab/storebags/reel.plist") << writeXMLPropertyList(
      Value(Dictionary{{"version", "1"}, {"release", section}, {"halcyon_internal", section}}));
  const auto daemon = bench.startDaemon({corvidd});
  std::list<Session> sessions;
  for (int i = 0; i < dashboards; ++i)
    sessions.emplace_back(folder, Session::Description{.clientType = dashboardClient});
  std::this_thread::sleep_for(std::chrono::seconds(2));

  const long start = contextSwitches(*daemon);
  std::this_thread::sleep_for(std::chrono::seconds(seconds));
  const long end = contextSwitches(*daemon);
  sessions.front().send(1, false);
  sessions.front().await();
  const long after = contextSwitches(*daemon);
  fmt::print("context switches of a daemon with {} dashboards\n", dashboards);
  fmt::print("  {:44}{:>8}\n", fmt::format("in {} s without an event", seconds), end - start);
  fmt::print("  {:44}{:>8}\n", "for one event then", after - end);
}

}  // namespace
}  // namespace corvid::bench

int main(int argc, char** argv) {
  std::string corvidd = CORVID_DAEMON;
  int packets = 10'000, rounds = 25, seconds = 10;
  return corvid::bench::run(
      {.name = "dashboard",
       .purpose =
           "Measures packets of a dashboard backend beside bare sends, and idle dashboards in "
           "a daemon.",
       .numbers = {{"--packets", &packets}, {"--rounds", &rounds}, {"--seconds", &seconds}},
       .texts = {{"--corvidd", &corvidd}},
       .measure =
           [&](const std::string& folder) {
             corvid::bench::printSending(packets, rounds);
             corvid::bench::printIdle(folder, corvidd, seconds);
           }},
      argc, argv);
}
