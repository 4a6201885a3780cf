// The daemon as the control socket shows it.
#pragma once

#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "base/Log.h"
#include "base/Mutex.h"
#include "daemon/CorviddAgent.h"
#include "protocol/ControlInterface.h"

namespace corvid {

class Platform;

// Brings back a log level after a time.
//
// Threads: any. The destructor brings nothing back.
class TemporaryLogLevel {
 public:
  ~TemporaryLogLevel();
  // 0 seconds: for good. Another call ends what was temporary before it.
  void set(LogLevel level, std::uint32_t seconds) EXCLUDES(_mutex);

 private:
  void endLast() EXCLUDES(_mutex);

  Mutex _callMutex;
  Mutex _mutex;
  Condition _ended;
  bool _ends GUARDED_BY(_mutex) = false;
  std::optional<LogLevel> _before;
  std::thread _thread;
};

// Threads: any; nothing here waits for a fetch, a client or the agent's mutex.
class DaemonControl final : public ControlInterface {
 public:
  struct Facts {
    std::string version;
    std::int64_t process = 0;
    bool isSandboxed = true;
  };

  DaemonControl(Platform& platform, std::shared_ptr<CorviddAgent> agent, Facts facts);

  std::string status() override;
  std::string sessions(SessionNumber session) override;
  std::vector<std::string> explain(SessionNumber session, std::size_t last) override;
  std::unique_ptr<ControlWatch> watch(SessionNumber session, bool payload,
                                      std::function<void()> wake) override;
  std::string metrics() override;
  std::optional<std::string> storebag(const std::string& name) override;
  std::vector<std::string> refresh(std::optional<std::int32_t> clientType, bool states) override;
  void setLogLevel(int level, std::uint32_t seconds) override;
  void refused(Refusal refusal) override;

 private:
  Platform& _platform;
  const std::shared_ptr<CorviddAgent> _agent;
  const Facts _facts;
  const Clock::TimePoint _start;
  TemporaryLogLevel _logLevel;
};

}  // namespace corvid
