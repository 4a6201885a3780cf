#include "tests/gateway/rounds/Candidate.h"

#include <fmt/format.h>

#include <stdexcept>

#include "gateway/log/AMQPPublisher.h"
#include "gateway/log/AMQPReader.h"
#include "tests/gateway/engines/RabbitCluster.h"
#ifdef CORVID_TRIES_NATS
#include "tests/gateway/engines/NatsCluster.h"
#include "tests/gateway/rounds/NatsLog.h"
#endif

namespace corvid::fleet {

namespace {

class Rabbit final : public Candidate {
 public:
  explicit Rabbit(LogCluster::Disks disks) : _cluster(disks) {}
  LogCluster& cluster() override { return _cluster; }
  std::unique_ptr<LogPublisher> publisher() override {
    return std::make_unique<AMQPPublisher>(amqpAddressFrom(_cluster.url()));
  }
  std::unique_ptr<LogReader> reader(const std::string& stream, const std::string&) override {
    return std::make_unique<AMQPReader>(amqpAddressFrom(_cluster.url()), std::vector{stream});
  }
  bool keepsReleased() const override { return false; }
  void clear(const std::string&) override {}

 private:
  RabbitCluster _cluster;
};

#ifdef CORVID_TRIES_NATS
class Nats final : public Candidate {
 public:
  explicit Nats(LogCluster::Disks disks) : _cluster(disks) {}
  LogCluster& cluster() override { return _cluster; }
  std::unique_ptr<LogPublisher> publisher() override {
    return std::make_unique<NatsPublisher>(_cluster.url(), std::chrono::seconds(20));
  }
  std::unique_ptr<LogReader> reader(const std::string& stream, const std::string& name) override {
    return std::make_unique<NatsReader>(_cluster.url(), stream, name);
  }
  bool keepsReleased() const override { return true; }
  void clear(const std::string& stream) override { purgeNatsStream(_cluster.url(), stream); }

 private:
  NatsCluster _cluster;
};
#endif

}  // namespace

std::unique_ptr<Candidate> makeCandidate(std::string_view name, LogCluster::Disks disks) {
  if (name == "rabbit") return std::make_unique<Rabbit>(disks);
#ifdef CORVID_TRIES_NATS
  if (name == "nats") return std::make_unique<Nats>(disks);
#endif
  throw std::invalid_argument(fmt::format("there is no candidate \"{}\"", name));
}

}  // namespace corvid::fleet
