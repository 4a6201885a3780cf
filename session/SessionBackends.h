// What a session asks of all its backends at once.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "backends/BackendSet.h"
#include "base/LogFields.h"
#include "base/TimeValue.h"
#include "base/Value.h"
#include "protocol/ClientSessionInterface.h"

namespace corvid {

// A message on its way to the backends and to aggregators. Borrows its payload.
struct SessionMessage {
  std::uint16_t category = 0;
  std::uint16_t type = 0;
  const Dictionary* payload = nullptr;  // null: absent
  MessageFlag flag = MessageFlag{0};
};

// The backends of one configuration, asked in the order of their table; every one is asked,
// whatever the others answered. Never changes once it is made.
//
// Threads   Any; the backends take care of themselves. Chains read and set states from other
//           sessions' threads.
class SessionBackends {
 public:
  explicit SessionBackends(BackendTable table) : _table(std::move(table)) {}

  // Not one backend came of the configuration.
  bool empty() const { return _table.empty(); }
  // Calls `act(CorvidBackend&)` with each.
  template <class Act>
  void each(Act&& act) const {
    for (const auto& [key, backend] : _table) {
      const LoggingBackend logged(key);
      act(*backend);
    }
  }
  // Whether any of them, asked by `work(CorvidBackend&)`, has taken the work.
  template <class Work>
  bool anyTakes(Work&& work) const {
    bool taken = false;
    for (const auto& [key, backend] : _table) {
      const LoggingBackend logged(key);
      taken |= work(*backend);
    }
    return taken;
  }

  // `mark` is the ledger's. Writes each answer to the message log. Gives that of the backend named
  // httpPost where it is not empty, else that of the dashboard.
  std::optional<std::string> send(const SessionMessage& message, const TimeValue& now,
                                  EventMark mark) const;
  // `completion`, which may be empty, is called once, at the first error or after the last backend;
  // never where there is none. On any thread, one flush of the process at a time.
  void flush(FlushCompletion completion) const;

  // Each with its state and the reason for it.
  std::vector<StatesReport::Backend> report() const;
  // The keys of those that report.
  Array reportingStates() const;
  // Level in the chain: that of the backend httpPost2, else of httpPost, else 0.
  std::int32_t hierarchy() const;
  std::optional<std::string> displayURL() const;
  // Takes state and sampling threshold of the parent's backends of the same keys; a backend that
  // the parent lacks is disabled, one that is held stays so. `parent` is null where it has no
  // backends; its session has that number.
  void follow(const SessionBackends* parent, std::uint64_t number) const;
  // Tells of each that is to have a parent and has none.
  void missParent(std::uint32_t sessionID) const;

 private:
  // Null where there is none under the key.
  const CorvidBackend* named(std::string_view key) const;

  const BackendTable _table;
};

}  // namespace corvid
