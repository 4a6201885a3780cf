// bench/events: what an event costs from a client's call to the collector, over TLS with gzip.
#include <fmt/format.h>

#include <algorithm>
#include <cstdio>
#include <stdexcept>
#include <thread>

#include "base/Reading.h"
#include "bench/BareRun.h"
#include "bench/Bench.h"
#include "bench/HandOver.h"
#include "bench/Program.h"
#include "bench/Reference.h"
#include "bench/Samples.h"
#include "platform/data/JSON.h"
#include "tools/Gzip.h"

#ifndef CORVID_DAEMON
#error "CORVID_DAEMON names the daemon to measure"
#endif

namespace corvid::bench {
namespace {

constexpr int eventsPerFlush = 50;

struct Options {
  std::string corvidd = CORVID_DAEMON;
  int batched = 200'000;
  int realtime = 20'000;
  int latencySeconds = 10;
};

double micros(Clock::duration duration) {
  return std::chrono::duration<double, std::micro>(duration).count();
}

// Bytes that have come in over the loopback device, every layer counted.
double loopbackBytes() {
  std::FILE* file = std::fopen("/proc/net/dev", "re");
  char line[512];
  double bytes = 0;
  while (file && std::fgets(line, sizeof line, file))
    if (std::sscanf(line, " lo: %lf", &bytes) == 1) break;
  if (file) std::fclose(file);
  return bytes;
}

struct Throughput {
  double eventsPerSecond = 0;
  double cpuMicros = 0;  // of the daemon, an event
  double wireBytes = 0;  // an event
  double peakMB = 0;
  Memory idleBefore, idleAfter;
  double readyMillis = 0;
  long lost = 0;
};

Throughput measureBatched(Bench& bench, const Options& options) {
  Throughput result;
  auto daemon = bench.startDaemon({options.corvidd});
  result.readyMillis = bench.readyMillis();
  std::this_thread::sleep_for(std::chrono::milliseconds(500));
  result.idleBefore = daemon->memory();
  const auto postsBefore = static_cast<long>(bench.nginx().received().requests);
  {
    Session session(bench.rootFolder(), {.clientType = nginxClient});
    session.flush();  // the start message and the connection are not counted
    session.await();
    const auto cpuBefore = daemon->cpuTime();
    const double bytesBefore = loopbackBytes();
    const auto start = Clock::now();
    for (int i = 0; i < options.batched; ++i) {
      session.send(static_cast<std::uint64_t>(i), false);
      if ((i + 1) % eventsPerFlush == 0) session.flush();
    }
    session.await();
    const double elapsed = micros(Clock::now() - start);
    result.cpuMicros = micros(daemon->cpuTime() - cpuBefore) / options.batched;
    result.wireBytes = (loopbackBytes() - bytesBefore) / options.batched;
    result.eventsPerSecond = options.batched / elapsed * 1e6;
    const long posts = static_cast<long>(bench.nginx().received().requests) - postsBefore - 1;
    result.lost = options.batched - posts * eventsPerFlush + static_cast<long>(session.failed());
    result.peakMB = daemon->peakMB();
  }
  std::this_thread::sleep_for(std::chrono::seconds(1));
  result.idleAfter = daemon->memory();
  return result;
}

Throughput measureRealtime(Bench& bench, const Options& options) {
  Throughput result;
  auto daemon = bench.startDaemon({options.corvidd});
  Session session(bench.rootFolder(), {.clientType = nginxClient});
  session.flush();
  session.await();
  const auto postsBefore = static_cast<long>(bench.nginx().received().requests);
  const auto cpuBefore = daemon->cpuTime();
  const double bytesBefore = loopbackBytes();
  const auto start = Clock::now();
  for (int i = 0; i < options.realtime; ++i) session.send(static_cast<std::uint64_t>(i), true);
  session.await();
  // The replies do not wait for the server: the last posts are still on their way.
  long posts = 0;
  Clock::time_point last = Clock::now();
  for (int i = 0; i < 40 && posts < options.realtime; ++i) {
    const long now = static_cast<long>(bench.nginx().received().requests) - postsBefore;
    if (now > posts) last = Clock::now();
    posts = now;
  }
  const double elapsed = micros(last - start);
  result.cpuMicros = micros(daemon->cpuTime() - cpuBefore) / options.realtime;
  result.wireBytes = (loopbackBytes() - bytesBefore) / options.realtime;
  result.eventsPerSecond = options.realtime / elapsed * 1e6;
  result.lost = options.realtime - posts + static_cast<long>(session.failed());
  result.peakMB = daemon->peakMB();
  return result;
}

struct Percentiles {
  double p50 = 0, p99 = 0;
};

Percentiles percentiles(std::vector<double> values) {
  if (values.empty()) throw std::runtime_error("nothing was measured");
  std::sort(values.begin(), values.end());
  return {values[values.size() / 2], values[values.size() * 99 / 100]};
}

struct Latency {
  Percentiles reply, sink;
  long lost = 0;
};

struct Call {
  Clock::time_point made, replied;
};

// 200 events a second, each made on its own.
Latency measureLatency(Bench& bench, const Options& options) {
  auto daemon = bench.startDaemon({options.corvidd});
  Session session(bench.rootFolder(), {.clientType = localClient});
  session.send(0, true);
  session.flush();
  session.await();
  std::this_thread::sleep_for(std::chrono::milliseconds(300));
  bench.takeArrivals();

  std::vector<Call> calls(static_cast<std::size_t>(options.latencySeconds) * 200);
  auto next = Clock::now();
  for (std::size_t i = 0; i < calls.size(); ++i) {
    std::this_thread::sleep_until(next += std::chrono::milliseconds(5));
    calls[i].made = Clock::now();
    session.send(
        i, true, [](void* call) { static_cast<Call*>(call)->replied = Clock::now(); }, &calls[i]);
  }
  session.await();
  std::this_thread::sleep_for(std::chrono::milliseconds(300));

  Latency result;
  std::vector<double> replies, sinks;
  for (const Call& call : calls) replies.push_back(micros(call.replied - call.made));
  for (const Arrival& arrival : bench.takeArrivals()) {
    const auto text = gunzip(arrival.body);
    const Result<Value> message = parseJSON(text ? *text : arrival.body);
    const Array* events = message ? arrayAt(*message.value().dictionary(), "events") : nullptr;
    if (!events || events->size() != 1) throw std::runtime_error("an unexpected post arrived");
    const auto number = integerAt(*events->front().dictionary(), "n");
    sinks.push_back(micros(arrival.time - calls.at(static_cast<std::size_t>(*number)).made));
  }
  result.lost = static_cast<long>(calls.size()) - static_cast<long>(sinks.size());
  result.reply = percentiles(std::move(replies));
  result.sink = percentiles(std::move(sinks));
  return result;
}

struct BareMicros {
  double batched = 0, realtime = 0;  // CPU of the bare program, an event
  Percentiles handOver;              // of what an answer's way takes by itself
};

void print(const Throughput& batched, const Throughput& realtime, const Latency& latency,
           const Reference& reference, const BareMicros& bare) {
  fmt::print("{:34}{:>12}{:>12}\n", "", "batched", "realtime");
  const auto row = [](const char* name, double a, double b, int digits) {
    fmt::print("{:34}{:>12.{}f}{:>12.{}f}\n", name, a, digits, b, digits);
  };
  row("events/s, call to sink", batched.eventsPerSecond, realtime.eventsPerSecond, 0);
  row("daemon CPU, us an event", batched.cpuMicros, realtime.cpuMicros, 2);
  row("bytes on the wire an event", batched.wireBytes, realtime.wireBytes, 0);
  row("peak resident, MB", batched.peakMB, realtime.peakMB, 1);
  row("events lost", static_cast<double>(batched.lost), static_cast<double>(realtime.lost), 0);
  fmt::print("\nready after start                 {:>12.1f} ms\n", batched.readyMillis);
  fmt::print("idle, resident / proportional     {:>12.1f} / {:.1f} MB\n",
             batched.idleBefore.residentMB, batched.idleBefore.proportionalMB);
  fmt::print("idle after the batched run        {:>12.1f} / {:.1f} MB\n",
             batched.idleAfter.residentMB, batched.idleAfter.proportionalMB);
  fmt::print(
      "at 200 events/s, p50 / p99: call to reply {:.0f} / {:.0f} us, call to sink {:.0f} / "
      "{:.0f} us, lost {}\n",
      latency.reply.p50, latency.reply.p99, latency.sink.p50, latency.sink.p99, latency.lost);
  fmt::print("\nin the same run, on the same bytes:\n");
  fmt::print("gzip of a batch, an event         {:>12.2f} us\n", reference.gzipBatchMicros);
  fmt::print("gzip of a lone message            {:>12.2f} us\n", reference.gzipLoneMicros);
  fmt::print("JSON writer, a record             {:>12.2f} us\n", reference.jsonMicros);
  fmt::print("bare blocking curl POST, CPU      {:>12.2f} us\n", reference.postMicros);
  fmt::print("bare blocking curl POST, p50      {:>12.0f} us\n", reference.postLatencyMicros);
  fmt::print("bare hand-over and back, p50 / p99    {:>8.0f} / {:.0f} us\n", bare.handOver.p50,
             bare.handOver.p99);
  const double batchedFloor =
      reference.gzipBatchMicros + reference.jsonMicros + reference.postMicros / eventsPerFlush;
  const double realtimeFloor =
      reference.gzipLoneMicros + reference.jsonMicros + reference.postMicros;
  fmt::print("daemon / (gzip + JSON + POST): batched {:.2f}, realtime {:.2f}\n",
             batched.cpuMicros / batchedFloor, realtime.cpuMicros / realtimeFloor);
  fmt::print("bare program, CPU an event: batched {:.2f} us, realtime {:.2f} us\n", bare.batched,
             bare.realtime);
  fmt::print("daemon / bare program: batched {:.2f}, realtime {:.2f}\n",
             batched.cpuMicros / bare.batched, realtime.cpuMicros / bare.realtime);
}

void measure(Options options, const std::string& folder) {
  options.batched = std::max(options.batched - options.batched % eventsPerFlush, eventsPerFlush);

  Bench bench(folder);
  const Samples samples = takeSamples(bench, options.corvidd, eventsPerFlush);
  const Throughput batched = measureBatched(bench, options);
  const Throughput realtime = measureRealtime(bench, options);
  const Latency latency = measureLatency(bench, options);
  const Percentiles handOver = percentiles(measureHandOvers(options.latencySeconds * 200));
  const Reference reference = measureReference(samples.batch, eventsPerFlush, samples.lone,
                                               bench.nginx().url("/events"), bench.caFile());
  const Dictionary record = firstRecord(samples.lone);
  BareRun bare{.events = options.batched,
               .eventsPerPost = eventsPerFlush,
               .url = bench.nginx().url("/events"),
               .caFile = bench.caFile(),
               .record = &record};
  const double bareBatched = measureBare(bare, folder);
  bare.events = options.realtime;
  bare.eventsPerPost = 1;
  print(batched, realtime, latency, reference, {bareBatched, measureBare(bare, folder), handOver});
}

}  // namespace
}  // namespace corvid::bench

int main(int argc, char** argv) {
  corvid::bench::Options options;
  return corvid::bench::run(
      {.name = "events",
       .purpose = "Measures events that are posted 50 at a time, one at a time, and 200 a second.",
       .numbers = {{"--batched", &options.batched},
                   {"--realtime", &options.realtime},
                   {"--latency", &options.latencySeconds}},
       .texts = {{"--corvidd", &options.corvidd}},
       .measure = [&](const std::string& folder) { corvid::bench::measure(options, folder); }},
      argc, argv);
}
