// bench/crowd: what the daemon costs among many: up to 500 clients of four users that send 20
// events a second each, sessions that come and go by the thousand, and chains of up to eight
// levels.
//
// Prints a row a measurement. Only the superuser can be several users; anybody else has 250
// clients.
#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <memory>
#include <optional>
#include <thread>
#include <vector>

#include "bench/Bench.h"
#include "bench/Program.h"
#include "platform/Paths.h"
#include "platform/data/PropertyList.h"
#include "tests/support/AsStranger.h"

#ifndef CORVID_DAEMON
#error "CORVID_DAEMON names the daemon to measure"
#endif

namespace corvid::bench {
namespace {

constexpr int eventsPerSecond = 20;  // of a client
constexpr int eventsPerFlush = 50;

// The clients of each user. A user may have 256 connections, and two thirds of those that others
// leave.
struct User {
  uid_t user;
  int clients;
};
constexpr std::array users{User{0, 250}, User{65534, 174}, User{65533, 58}, User{65532, 18}};

struct Options {
  std::string corvidd = CORVID_DAEMON;
  int clients = 500;  // of the largest load
  int seconds = 10;   // of a load
  int churn = 10'000;
  int events = 20'000;  // of a chain
};

using Sessions = std::vector<std::unique_ptr<Session>>;

double micros(Clock::duration duration) {
  return std::chrono::duration<double, std::micro>(duration).count();
}

std::unique_ptr<Session> open(const Bench& bench, int client) {
  std::size_t owner = 0;
  while (client >= users.at(owner).clients) client -= users.at(owner++).clients;
  std::optional<AsStranger> stranger;
  if (owner > 0) stranger.emplace(users.at(owner).user);
  return std::make_unique<Session>(bench.rootFolder(),
                                   Session::Description{.clientType = nginxClient});
}

Sessions openAll(const Bench& bench, int count) {
  Sessions sessions;
  for (int i = 0; i < count; ++i) sessions.push_back(open(bench, i));
  return sessions;
}

void admitStrangers(const Bench& bench) {
  chmod(bench.rootFolder().c_str(), 0755);
  for (const User& user : users) {
    const Dictionary entry{{"match", Dictionary{{"user", std::int64_t{user.user}}}},
                           {"entitlements", Dictionary{{"com.halcyon.private.corvidd", true}}}};
    std::ofstream(
        fmt::format("{}/{}.plist", Paths(bench.rootFolder()).entitlementsFolder, user.user))
        << writeXMLPropertyList(Value(entry));
  }
}

struct Call {
  Clock::time_point made, replied;
};

struct LoadCost {
  double cpuMicros = 0;  // an event
  double replyP50 = 0, replyP99 = 0;
  double sessionKiB = 0;
};

// Each client sends in its turn, all of them within a twentieth of a second.
LoadCost measureLoad(Bench& bench, const Options& options, int clients) {
  const auto daemon = bench.startDaemon({options.corvidd});
  const auto first = open(bench, 0);
  const Memory alone = daemon->memory();
  const Sessions sessions = openAll(bench, clients);
  std::this_thread::sleep_for(std::chrono::seconds(1));
  const Memory together = daemon->memory();

  const int turns = options.seconds * eventsPerSecond;
  std::vector<Call> calls(static_cast<std::size_t>(turns * clients));
  const auto pause =
      std::chrono::nanoseconds(std::chrono::seconds(1)) / (clients * eventsPerSecond);
  const auto cpuBefore = daemon->cpuTime();
  auto next = Clock::now();
  for (std::size_t i = 0; i < calls.size(); ++i) {
    const std::size_t turn = i / sessions.size();
    Session& session = *sessions[i % sessions.size()];
    std::this_thread::sleep_until(next += pause);
    calls[i].made = Clock::now();
    session.send(
        i, false, [](void* call) { static_cast<Call*>(call)->replied = Clock::now(); }, &calls[i]);
    if (turn % eventsPerFlush == eventsPerFlush - 1) session.flush();
  }
  std::vector<double> replies;
  for (const auto& session : sessions) {
    if (turns % eventsPerFlush != 0) session->flush();  // a flush of nothing fails
    session->await();
    if (session->failed() > 0) throw std::runtime_error("the daemon refused events");
  }
  const double events = static_cast<double>(calls.size());
  LoadCost cost;
  cost.cpuMicros = micros(daemon->cpuTime() - cpuBefore) / events;
  for (const Call& call : calls) replies.push_back(micros(call.replied - call.made));
  std::ranges::sort(replies);
  cost.replyP50 = replies[replies.size() / 2];
  cost.replyP99 = replies[replies.size() * 99 / 100];
  cost.sessionKiB = (together.residentMB - alone.residentMB) * 1024 / clients;
  return cost;
}

void measureLoads(Bench& bench, const Options& options) {
  fmt::print("{:<10}{:>10}{:>14}{:>14}{:>14}{:>14}\n", "clients", "events/s", "CPU us/event",
             "reply p50 us", "p99 us", "KiB/session");
  const bool isSuperuser = geteuid() == 0;
  if (isSuperuser) admitStrangers(bench);
  for (const int clients : {1, 50, 250, 500}) {
    if (clients > options.clients) continue;
    if (clients > users.front().clients && !isSuperuser) continue;
    const LoadCost cost = measureLoad(bench, options, clients);
    fmt::print("{:<10}{:>10}{:>14.2f}{:>14.0f}{:>14.0f}{:>14.1f}\n", clients,
               clients * eventsPerSecond, cost.cpuMicros, cost.replyP50, cost.replyP99,
               cost.sessionKiB);
    std::fflush(stdout);
  }
}

std::size_t countOf(pid_t process, const char* folder) {
  const auto path = fmt::format("/proc/{}/{}", process, folder);
  const auto entries = std::filesystem::directory_iterator(path);
  return static_cast<std::size_t>(std::distance(begin(entries), end(entries)));
}

// Sessions come, send a few events, flush and go, twenty at a time.
void measureChurn(Bench& bench, const Options& options) {
  constexpr int together = 20;
  constexpr int events = 5;
  const int tenth = std::max(1, options.churn / 10 / together) * together;
  const auto daemon = bench.startDaemon({options.corvidd});
  fmt::print("\n{:<10}{:>16}{:>14}{:>14}{:>10}\n", "sessions", "CPU us/session", "resident MB",
             "descriptors", "threads");
  for (int done = 0; done < options.churn;) {
    const auto cpuBefore = daemon->cpuTime();
    for (int i = 0; i < tenth; i += together) {
      const Sessions sessions = openAll(bench, together);
      for (const auto& session : sessions) {
        for (std::uint64_t event = 0; event < events; ++event) session->send(event, false);
        session->flush();
      }
      for (const auto& session : sessions) session->await();
    }
    done += tenth;
    const double cpu = micros(daemon->cpuTime() - cpuBefore) / tenth;
    fmt::print("{:<10}{:>16.0f}{:>14.1f}{:>14}{:>10}\n", done, cpu, daemon->memory().residentMB,
               countOf(daemon->pid(), "fd"), countOf(daemon->pid(), "task"));
    std::fflush(stdout);
  }
}

// Events of the lowest session of a chain.
double chainMicros(Bench& bench, const Options& options, std::size_t levels) {
  const auto daemon = bench.startDaemon({options.corvidd});
  Sessions chain;
  for (std::size_t level = 0; level < levels; ++level)
    chain.push_back(std::make_unique<Session>(
        bench.rootFolder(), Session::Description{.clientType = chainClients.at(level)}));
  Session& lowest = *chain.back();
  const auto cpuBefore = daemon->cpuTime();
  for (int i = 0; i < options.events; ++i) {
    lowest.send(static_cast<std::uint64_t>(i), false);
    if ((i + 1) % eventsPerFlush == 0) lowest.flush();
  }
  if (options.events % eventsPerFlush != 0) lowest.flush();
  lowest.await();
  if (lowest.failed() > 0) throw std::runtime_error("the daemon refused events");
  return micros(daemon->cpuTime() - cpuBefore) / options.events;
}

void measureChains(Bench& bench, const Options& options) {
  fmt::print("\n{:<10}{:>14}\n", "levels", "CPU us/event");
  for (const std::size_t levels : {1u, 2u, 4u, 8u}) {
    fmt::print("{:<10}{:>14.2f}\n", levels, chainMicros(bench, options, levels));
    std::fflush(stdout);
  }
}

void measure(const Options& options, const std::string& folder) {
  Bench bench(folder);
  measureLoads(bench, options);
  measureChurn(bench, options);
  measureChains(bench, options);
}

}  // namespace
}  // namespace corvid::bench

int main(int argc, char** argv) {
  corvid::bench::Options options;
  return corvid::bench::run(
      {.name = "crowd",
       .purpose = "Says what the daemon costs among many clients, comers and goers, and chains.",
       .numbers = {{"--clients", &options.clients},
                   {"--seconds", &options.seconds},
                   {"--churn", &options.churn},
                   {"--events", &options.events}},
       .texts = {{"--corvidd", &options.corvidd}},
       .measure = [&](const std::string& folder) { corvid::bench::measure(options, folder); }},
      argc, argv);
}
