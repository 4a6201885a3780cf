// What the daemon tells of itself to those who may look.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace corvid {

// Follows decisions for one connection.
class ControlWatch {
 public:
  virtual ~ControlWatch() = default;
  // JSON objects of what was decided since the last call, oldest first, at most so many bytes of
  // them; the rest comes with the next call. Any thread.
  virtual std::vector<std::string> take(std::size_t mostBytes) = 0;
};

// Threads   Any. Nothing waits for a server, a client or a lock that is held while one is waited
// for. Errors    None; what is not known is told as such.
class ControlInterface {
 public:
  virtual ~ControlInterface() = default;

  // `session` is a session's number; nothing means all of them.
  using SessionNumber = std::optional<std::uint64_t>;

  virtual std::string status() = 0;                         // a JSON object
  virtual std::string sessions(SessionNumber session) = 0;  // a JSON array
  // JSON objects, oldest first.
  virtual std::vector<std::string> explain(SessionNumber session, std::size_t last) = 0;
  // `wake` is called from any thread when something waits; it does not block.
  virtual std::unique_ptr<ControlWatch> watch(SessionNumber session, bool payload,
                                              std::function<void()> wake) = 0;
  virtual std::string metrics() = 0;  // OpenMetrics text
  // The section in force of the storebag with that name, as a property list; nothing where there is
  // none.
  virtual std::optional<std::string> storebag(const std::string& name) = 0;
  // Names of what was touched. Nothing as type means every storebag that was asked for.
  virtual std::vector<std::string> refresh(std::optional<std::int32_t> clientType, bool states) = 0;
  // `level` as in syslog; 0 seconds means for good.
  virtual void setLogLevel(int level, std::uint32_t seconds) = 0;
  // A peer's connection is closed at once: it may not look, or there are too many.
  enum class Refusal { notEntitled, tooMany };
  virtual void refused(Refusal refusal) = 0;
};

}  // namespace corvid
