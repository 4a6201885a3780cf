#include "gateway/loader/Loader.h"

#include <algorithm>
#include <condition_variable>
#include <mutex>
#include <stdexcept>

#include "base/Log.h"
#include "gateway/loader/Schema.h"

namespace corvid::fleet {

namespace {

constexpr std::chrono::milliseconds firstBackOff{100};
constexpr std::chrono::hours retentionInterval{1};

}  // namespace

void Loader::run(const std::stop_token& stop) {
  std::chrono::milliseconds backOff = firstBackOff;
  while (!stop.stop_requested()) try {
      work();
      _ledger.setReading(true);
      backOff = firstBackOff;
    } catch (const std::runtime_error& error) {
      _ledger.setReading(false);
      _ledger.failed();
      logWarning("loader: {}", error.what());
      // Others get what this reader was given and has not released; what is held here is stored by
      // whoever is first.
      _reader.reset();
      pause(stop, backOff);
      backOff = std::min(2 * backOff, _options.longestBackOff);
    }
  try {
    storeHeld();
  } catch (const std::runtime_error& error) {
    logWarning("loader: {} messages go back to the log: {}", _held.size(), error.what());
  }
}

void Loader::work() {
  storeHeld();
  retain();
  if (!_reader) _reader = _makeReader();
  _held = _reader->read(_options.batch, _options.wait);
  _ledger.received(_held.size());
  storeHeld();
}

void Loader::storeHeld() {
  if (!_store) _store = _makeStore();
  if (_held.empty()) return;
  try {
    _ledger.decided(_store->store(_held));
  } catch (const DatabaseError&) {
    _store.reset();
    throw;
  }
  const std::uint64_t last = _held.back().position;
  _held.clear();
  // A reader that was made since did not read them.
  if (_reader) _reader->release(last);
}

void Loader::retain() {
  const auto now = std::chrono::steady_clock::now();
  if (_options.retainedDays == 0 || (_retained && now - *_retained < retentionInterval)) return;
  const std::size_t dropped = dropOldPartitions(_store->database(), _options.retainedDays);
  if (dropped > 0) logInfo("loader: dropped {} partitions of past days", dropped);
  _retained = now;
}

void Loader::pause(const std::stop_token& stop, std::chrono::milliseconds time) const {
  std::mutex mutex;
  std::unique_lock lock(mutex);
  std::condition_variable_any stopped;
  stopped.wait_for(lock, stop, time, [] { return false; });
}

}  // namespace corvid::fleet
