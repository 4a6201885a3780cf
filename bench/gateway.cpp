// bench/gateway: what a gateway costs for an event and for an idle connection.
//
// The program under test stands before a log that takes everything at once, so that what is
// measured is the gateway's own. Beside it, on the same bytes, what the parts cost alone.
#include <fmt/format.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <stdexcept>
#include <string>
#include <vector>

#include "base/Reading.h"
#include "bench/GatewayParts.h"
#include "bench/GatewayPosts.h"
#include "bench/MeasuredProcess.h"
#include "bench/Program.h"
#include "tests/support/Scratch.h"
#include "tests/support/Waiting.h"

#ifndef CORVID_GATEWAY
#error "CORVID_GATEWAY names the gateway to measure"
#endif

namespace corvid::bench {
namespace {

constexpr int usualBatch = 50;

struct Setup {
  int connections = 16;
  int idle = 10'000;
  int seconds = 3;
  int threads = 1;
};

std::uint16_t portIn(const std::string& log) {
  constexpr std::string_view before = "Serving at port ";
  std::uint16_t port = 0;
  const auto said = [&] {
    const std::string text = contentOf(log);
    const std::size_t at = text.find(before);
    if (at == text.npos) return false;
    const std::size_t from = at + before.size();
    port = numberFrom<std::uint16_t>(text.substr(from, text.find(',', from) - from)).value_or(0);
    return port != 0;
  };
  if (!waitUntil(said)) throw std::runtime_error("the gateway does not serve");
  return port;
}

// As many clients as there are posts, named by a proxy; one may do what all of a fleet do.
struct Served {
  Served(const std::string& folder, const std::string& name, int threads)
      : log(folder + "/" + name + ".log"),
        process({CORVID_GATEWAY, "--listen", "127.0.0.1:0", "--monitor", "127.0.0.1:0", "--log-url",
                 "fake:stores", "--threads", std::to_string(threads), "--config", settings(folder)},
                log),
        port(portIn(log)) {}

  static std::string settings(const std::string& folder) {
    const std::string path = folder + "/gateway.conf";
    std::FILE* const file = std::fopen(path.c_str(), "w");
    if (!file) throw std::runtime_error("cannot write " + path);
    std::fputs(
        "proxies = 127.0.0.1\nclient-requests = 1000000\nclient-bytes = 1000000000\n"
        "client-time = 1000000\n",
        file);
    std::fclose(file);
    return path;
  }

  const std::string log;
  MeasuredProcess process;
  const std::uint16_t port;
};

void measurePosts(const std::string& folder, const Setup& setup, int events) {
  const auto posts = makeFleetPosts(256, events);
  Served served(folder, fmt::format("posts{}", events), setup.threads);
  (void)makePosts(served.port, posts, setup.connections, std::chrono::milliseconds(300));
  const auto before = served.process.cpuTime();
  Posting posting =
      makePosts(served.port, posts, setup.connections, std::chrono::seconds(setup.seconds));
  const double micros = inMicros(served.process.cpuTime() - before);
  const auto count = static_cast<double>(posting.posts);
  const double middle = median(posting.latencyMicros);
  const auto late = posting.latencyMicros.begin() +
                    static_cast<std::ptrdiff_t>(posting.latencyMicros.size() * 99 / 100);
  std::nth_element(posting.latencyMicros.begin(), late, posting.latencyMicros.end());
  fmt::print(
      "{:>3} a post ({} bytes, {} as sent): {:7.2f} CPU us an event, {:8.1f} a post; {:8.0f} posts/s over "
      "{} connections; answer after {:.0f} us (median), {:.0f} (99 of 100)\n",
      events, posts[0].body.size(), posts[0].packed.size(), micros / count / events, micros / count,
      count / posting.seconds, setup.connections, middle, *late);
}

void measureIdle(const std::string& folder, const Setup& setup) {
  rlimit limit{};
  getrlimit(RLIMIT_NOFILE, &limit);
  limit.rlim_cur = limit.rlim_max;
  setrlimit(RLIMIT_NOFILE, &limit);
  const auto posts = makeFleetPosts(64, usualBatch);
  Served served(folder, "idle", setup.threads);
  const Memory before = served.process.memory();
  std::vector<Descriptor> idle;
  for (int i = 0; i < setup.idle; ++i) idle.push_back(connectTo(served.port));
  // Each has made a post before it is idle.
  std::string answer(512, '\0');
  for (std::size_t i = 0; i < idle.size(); ++i) {
    const std::string& request = posts[i % posts.size()].request;
    if (write(idle[i].get(), request.data(), request.size()) !=
            static_cast<ssize_t>(request.size()) ||
        read(idle[i].get(), answer.data(), answer.size()) <= 0 ||
        !answer.starts_with("HTTP/1.1 200"))
      throw std::runtime_error("a post was not taken");
  }
  const Memory after = served.process.memory();
  const auto cpu = served.process.cpuTime();
  std::this_thread::sleep_for(std::chrono::seconds(setup.seconds));
  const double idleMillis = inMicros(served.process.cpuTime() - cpu) / 1000 / setup.seconds;
  fmt::print(
      "{} idle connections: {:.1f} MB resident ({:.1f} before, {:.0f} bytes each), {:.2f} CPU ms a second\n",
      setup.idle, after.residentMB, before.residentMB,
      (after.residentMB - before.residentMB) * (1 << 20) / setup.idle, idleMillis);
}

}  // namespace
}  // namespace corvid::bench

int main(int argc, char** argv) {
  using namespace corvid::bench;
  Setup setup;
  return run({.name = "gateway",
              .purpose = "Posts to a gateway and prints what an event and a connection cost it.",
              .numbers = {{"--connections", &setup.connections},
                          {"--idle", &setup.idle},
                          {"--seconds", &setup.seconds},
                          {"--threads", &setup.threads}},
              .texts = {},
              .measure =
                  [&](const std::string& folder) {
                    for (const int events : {usualBatch, 1}) {
                      measurePosts(folder, setup, events);
                      measureGatewayParts(events);
                    }
                    measureIdle(folder, setup);
                  }},
             argc, argv);
}
