#include "bench/Samples.h"

#include <chrono>
#include <stdexcept>
#include <thread>
#include <vector>

#include "base/Reading.h"
#include "platform/data/JSON.h"
#include "tools/Gzip.h"

namespace corvid::bench {

Samples takeSamples(Bench& bench, const std::string& corvidd, int eventsOfBatch) {
  auto daemon = bench.startDaemon({corvidd});
  Session session(bench.rootFolder(), {.clientType = localClient});
  session.flush();
  session.await();
  bench.takeArrivals();
  for (int i = 0; i < eventsOfBatch; ++i) session.send(static_cast<std::uint64_t>(i), false);
  session.flush();
  session.await();
  session.send(1, true);
  session.await();
  std::this_thread::sleep_for(std::chrono::milliseconds(300));
  const std::vector<Arrival> arrivals = bench.takeArrivals();
  if (arrivals.size() != 2) throw std::runtime_error("the sample posts did not arrive");
  const auto plain = [](const Arrival& arrival) {
    return gunzip(arrival.body).value_or(arrival.body);
  };
  return {plain(arrivals[0]), plain(arrivals[1])};
}

Dictionary firstRecord(const std::string& message) {
  const Value read = parseJSON(message).value();
  const Array* const records = arrayAt(*read.dictionary(), "events");
  if (!records || records->empty()) throw std::runtime_error("the sample message holds no record");
  return *records->front().dictionary();
}

}  // namespace corvid::bench
