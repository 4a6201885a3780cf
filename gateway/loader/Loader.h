// From the log into the database, until it is told to stop.
#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <optional>
#include <stop_token>
#include <vector>

#include "gateway/loader/LoaderLedger.h"
#include "gateway/loader/Store.h"
#include "gateway/log/MessageLog.h"

namespace corvid::fleet {

// Reads messages, stores them in one transaction with their IDs, and only then releases them: what
// a loader held when it died is read by another one, and known by its ID where it was stored.
// Where the log or the database is lost, it is looked for again and again.
class Loader {
 public:
  struct Options {
    std::size_t batch = 500;              // messages in one transaction, at most
    std::chrono::milliseconds wait{200};  // for the first of them
    std::chrono::milliseconds longestBackOff{5000};
    int retainedDays = 0;  // 0: for ever
  };
  using MakeReader = std::function<std::unique_ptr<LogReader>()>;  // may throw std::runtime_error
  using MakeStore = std::function<std::unique_ptr<Store>()>;       // may throw std::runtime_error

  Loader(MakeReader makeReader, MakeStore makeStore, const Options& options, LoaderLedger& ledger)
      : _makeReader(std::move(makeReader)),
        _makeStore(std::move(makeStore)),
        _options(options),
        _ledger(ledger) {}

  // Returns when what is held is stored, or at once where the database does not take it.
  void run(const std::stop_token& stop);

 private:
  // One time round; std::runtime_error where the log or the database is lost.
  void work();
  void storeHeld();
  void retain();
  void pause(const std::stop_token& stop, std::chrono::milliseconds time) const;

  const MakeReader _makeReader;
  const MakeStore _makeStore;
  const Options _options;
  LoaderLedger& _ledger;
  std::unique_ptr<LogReader> _reader;
  std::unique_ptr<Store> _store;
  std::vector<LoggedMessage> _held;
  std::optional<std::chrono::steady_clock::time_point> _retained;  // when it was last looked at
};

}  // namespace corvid::fleet
