// bench/energy: what a day costs a device that the daemon runs on: wake-ups, CPU seconds and bytes.
//
// The work of a day is done in one go. What a daemon costs while nothing happens is measured beside
// it, and counted for the hours in which it runs. The sink keeps no connection: posts that are
// hours apart each make their own.
#include <fmt/format.h>
#include <sys/resource.h>

#include <chrono>
#include <memory>
#include <thread>
#include <vector>

#include "bench/Bench.h"
#include "bench/Program.h"

#ifndef CORVID_DAEMON
#error "CORVID_DAEMON names the daemon to measure"
#endif

namespace corvid::bench {
namespace {

struct Options {
  std::string corvidd = CORVID_DAEMON;
  int idleSeconds = 120;
};

// A day of a device.
struct Device {
  const char* name;
  double hours;        // in which the daemon runs
  int starts;          // of the daemon
  int sessions;        // a start
  bool areSideBySide;  // else one after the other
  int flushes;         // a session
  int eventsPerFlush;  // batched
  int realtimePerFlush;

  int events() const { return starts * sessions * flushes * (eventsPerFlush + realtimePerFlush); }
};

constexpr Device devices[] = {
    {"set-top box", 24, 1, 3, true, 24, 20, 1},
    {"phone", 24, 1, 60, false, 1, 30, 2},
    {"car", 2, 4, 6, true, 1, 40, 2},
    {"idle", 24, 1, 1, true, 0, 0, 0},
};

struct Cost {
  double wakeUps = 0;
  double seconds = 0;  // of CPU

  Cost operator-(const Cost& other) const {
    return {wakeUps - other.wakeUps, seconds - other.seconds};
  }
  Cost operator+(const Cost& other) const {
    return {wakeUps + other.wakeUps, seconds + other.seconds};
  }
  Cost operator*(double times) const { return {wakeUps * times, seconds * times}; }
};

// Of all processes that have ended and were waited for: of daemons, as the sink goes on.
Cost spent() {
  rusage usage{};
  getrusage(RUSAGE_CHILDREN, &usage);
  const auto seconds = [](const timeval& time) {
    return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_usec) / 1e6;
  };
  return {static_cast<double>(usage.ru_nvcsw), seconds(usage.ru_utime) + seconds(usage.ru_stime)};
}

using Sessions = std::vector<std::unique_ptr<Session>>;

Sessions open(const Bench& bench, int count) {
  Sessions sessions;
  for (int i = 0; i < count; ++i)
    sessions.push_back(std::make_unique<Session>(bench.rootFolder(),
                                                 Session::Description{.clientType = nginxClient}));
  return sessions;
}

void report(const Device& device, const Sessions& sessions) {
  std::uint64_t number = 0;
  for (int flush = 0; flush < device.flushes; ++flush)
    for (const auto& session : sessions) {
      for (int i = 0; i < device.eventsPerFlush; ++i) session->send(number++, false);
      for (int i = 0; i < device.realtimePerFlush; ++i) session->send(number++, true);
      session->flush();
      session->await();
    }
}

// From a start of the daemon to its end.
Cost run(Bench& bench, const Options& options, const std::function<void()>& work) {
  const Cost before = spent();
  {
    const auto daemon = bench.startDaemon({options.corvidd});
    work();
  }
  return spent() - before;
}

Cost workOf(Bench& bench, const Options& options, const Device& device) {
  return run(bench, options, [&] {
    if (device.areSideBySide) return report(device, open(bench, device.sessions));
    for (int i = 0; i < device.sessions; ++i) report(device, open(bench, 1));
  });
}

// For a second in which nothing happens, with a session that has nothing to say.
Cost idling(Bench& bench, const Options& options) {
  const auto daemon = bench.startDaemon({options.corvidd});
  const Sessions sessions = open(bench, 1);
  const auto now = [&] {
    return Cost{static_cast<double>(daemon->sleeps()),
                std::chrono::duration<double>(daemon->cpuTime()).count()};
  };
  // The start message is posted, and connections that nobody uses are given up.
  std::this_thread::sleep_for(std::chrono::seconds(150));
  const Cost before = now();
  std::this_thread::sleep_for(std::chrono::seconds(options.idleSeconds));
  return (now() - before) * (1.0 / options.idleSeconds);
}

void measure(const Options& options, const std::string& folder) {
  constexpr double secondsAnHour = 3600;
  Bench bench(folder, NginxSink::Connections::eachItsOwn);
  const Cost idle = idling(bench, options);
  fmt::print("idle: {:.1f} wake-ups and {:.2f} ms of CPU an hour\n\n", idle.wakeUps * secondsAnHour,
             idle.seconds * secondsAnHour * 1000);
  fmt::print("{:<14}{:>8}{:>8}{:>12}{:>12}{:>10}\n", "a day of a", "events", "posts", "wake-ups",
             "CPU s", "kB sent");
  NginxSink::Received before = bench.nginx().received();
  for (const Device& device : devices) {
    const Cost work = workOf(bench, options, device) * device.starts;
    const Cost day = work + idle * (device.hours * secondsAnHour);
    const NginxSink::Received now = bench.nginx().received();
    const auto starts = static_cast<std::size_t>(device.starts);
    fmt::print("{:<14}{:>8}{:>8}{:>12.0f}{:>12.2f}{:>10.1f}\n", device.name, device.events(),
               (now.requests - before.requests) * starts, day.wakeUps, day.seconds,
               static_cast<double>((now.bytes - before.bytes) * starts) / 1000);
    before = now;
  }
}

}  // namespace
}  // namespace corvid::bench

int main(int argc, char** argv) {
  corvid::bench::Options options;
  return corvid::bench::run(
      {.name = "energy",
       .purpose = "Says what a day costs four kinds of devices that the daemon runs on.",
       .numbers = {{"--idle", &options.idleSeconds}},
       .texts = {{"--corvidd", &options.corvidd}},
       .measure = [&](const std::string& folder) { corvid::bench::measure(options, folder); }},
      argc, argv);
}
