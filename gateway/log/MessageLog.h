#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <string>
#include <utility>
#include <vector>

// The replicated log between gateways and loaders, as they see it.
namespace corvid::fleet {

struct LogMessage {
  std::string stream;  // what it belongs to: "events", "logs"
  std::string id;      // the same for posts that are the same, and for no others
  std::vector<std::pair<std::string, std::string>> headers;
  std::string body;
};

// What became of a message that was published.
enum class Published {
  stored,      // a majority of the nodes has it on its disk
  refused,     // the log has it not, and would not take it the next time
  unanswered,  // the log may have it or not
};

// Writes into the log. Thread-safe.
class LogPublisher {
 public:
  // Called once for each message, on a thread of the publisher; must not block.
  using Completion = std::function<void(Published)>;

  virtual ~LogPublisher() = default;

  // Returns at once. Where the log does not answer, `completion` hears `unanswered` by the
  // publisher's deadline, or when the publisher goes.
  virtual void publish(LogMessage message, Completion completion) = 0;

  // Whether the log takes messages, as far as is known without asking.
  virtual bool isReady() const = 0;
};

struct LoggedMessage {
  LogMessage message;
  std::uint64_t position = 0;  // what `LogReader::release` takes; of this reader only
};

// Reads from the log, in its order. For one thread.
class LogReader {
 public:
  virtual ~LogReader() = default;

  // Waits until something is there or `wait` has passed, and takes up to `most` messages. Each
  // stays this reader's until it is released; where the reader goes before, others get it.
  // Throws std::runtime_error where the log is lost; what was not released comes again.
  virtual std::vector<LoggedMessage> read(std::size_t most, std::chrono::milliseconds wait) = 0;

  // Whatever was read up to `position` stands elsewhere and is not read again, unless this is lost
  // on the way: readers must know messages that come twice by their ID.
  virtual void release(std::uint64_t position) = 0;
};

}  // namespace corvid::fleet
