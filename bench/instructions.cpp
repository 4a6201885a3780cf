// bench/instructions: how many instructions an event costs the daemon, outside the kernel. Unlike
// times they hardly depend on what else the machine does.
#include <fmt/format.h>

#include <algorithm>
#include <fstream>
#include <stdexcept>

#include "bench/Bench.h"
#include "bench/CallgrindProfile.h"
#include "bench/Program.h"

namespace corvid::bench {
namespace {

constexpr int eventsPerFlush = 50;

struct Options {
  std::string corvidd = CORVID_DAEMON;
  int batched = 2'000;
  int realtime = 500;
  int awaited = eventsPerFlush;  // how many are sent before their answers are waited for
  std::string keep;              // a folder that profiles stay in, for callgrind_annotate
};

using Counts = std::map<std::string, std::int64_t>;

// The handshakes of TLS differ from run to run, and what is encrypted is bytes, not events.
bool isCryptography(const std::string& object) {
  return object.starts_with("libcrypto") || object.starts_with("libssl");
}

Counts countOf(Bench& bench, const Options& options, int events, bool realtime) {
  const std::string folder = options.keep.empty() ? bench.rootFolder() : options.keep;
  const std::string profile =
      fmt::format("{}/{}-{}.callgrind", folder, realtime ? "realtime" : "batched", events);
  {
    const auto daemon =
        bench.startDaemon({"valgrind", "--quiet", "--tool=callgrind",
                           "--callgrind-out-file=" + profile, options.corvidd, "--sandbox", "off"});
    Session session(bench.rootFolder(), {.clientType = nginxClient});
    session.flush();
    session.await();
    for (int i = 0; i < events; ++i) {
      session.send(static_cast<std::uint64_t>(i), realtime);
      if (!realtime && (i + 1) % eventsPerFlush == 0) session.flush();
      if ((i + 1) % options.awaited == 0) session.await();
    }
    session.await();
    if (session.failed() > 0) throw std::runtime_error("the daemon refused events");
  }
  std::ifstream counted(profile);
  return instructionsIn(counted);
}

// Of one event: the start and the end of the daemon and of the session are in both counts.
Counts perEvent(Bench& bench, const Options& options, int events, bool realtime) {
  const Counts few = countOf(bench, options, events, realtime);
  Counts each = countOf(bench, options, 2 * events, realtime);
  for (auto& [object, count] : each) {
    const auto before = few.find(object);
    count = (count - (before == few.end() ? 0 : before->second)) / events;
  }
  return each;
}

void print(const char* kind, const Counts& counts) {
  std::int64_t sum = 0;
  for (const auto& [object, count] : counts) {
    if (isCryptography(object) || count < 100) continue;
    fmt::print("  {:<28}{:>9}\n", object, count);
    sum += count;
  }
  fmt::print("{:<30}{:>9}\n", kind, sum);
}

void measure(const Options& options, const std::string& folder) {
  Bench bench(folder);
  print("batched", perEvent(bench, options, options.batched, false));
  print("realtime", perEvent(bench, options, options.realtime, true));
}

}  // namespace
}  // namespace corvid::bench

int main(int argc, char** argv) {
  corvid::bench::Options options;
  return corvid::bench::run(
      {.name = "instructions",
       .purpose = "Counts the instructions that an event costs the daemon, with callgrind.",
       .numbers = {{"--batched", &options.batched},
                   {"--realtime", &options.realtime},
                   {"--awaited", &options.awaited}},
       .texts = {{"--corvidd", &options.corvidd}, {"--keep", &options.keep}},
       .measure = [&](const std::string& folder) { corvid::bench::measure(options, folder); }},
      argc, argv);
}
