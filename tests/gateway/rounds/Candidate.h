// The replicated logs that can be tried.
#pragma once

#include <memory>
#include <string>
#include <string_view>

#include "gateway/log/MessageLog.h"
#include "tests/gateway/engines/LogCluster.h"

namespace corvid::fleet {

// A cluster with what writes and reads. The thread of its cluster.
class Candidate {
 public:
  virtual ~Candidate() = default;

  virtual LogCluster& cluster() = 0;
  virtual std::unique_ptr<LogPublisher> publisher() = 0;
  // Readers of one `name` share the stream; one of a new name begins at its beginning where the log
  // keeps what was released.
  virtual std::unique_ptr<LogReader> reader(const std::string& stream, const std::string& name) = 0;
  virtual bool keepsReleased() const = 0;
  // Takes out what was released and is kept nevertheless.
  virtual void clear(const std::string& stream) = 0;
};

// Starts its nodes. "rabbit" or "nats"; std::invalid_argument for another name.
std::unique_ptr<Candidate> makeCandidate(std::string_view name, LogCluster::Disks disks);

}  // namespace corvid::fleet
