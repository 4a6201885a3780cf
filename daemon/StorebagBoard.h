// What is known of the storebags, for those who may not wait for a fetch.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <utility>

#include "base/Mutex.h"
#include "config/StorebagFetch.h"

namespace corvid {

// Of one storebag name. Times are since 1970, in seconds.
struct StorebagStanding {
  std::string url{};  // that was asked last
  bool isBeingFetched = false;
  bool isFallback = false;
  std::optional<std::string> version{};         // of the one that is kept
  std::optional<std::uint64_t> key{};           // that verified it
  std::shared_ptr<const Dictionary> content{};  // its section in force
  std::optional<double> validSince{};           // when it was had, or found unchanged
  double maxAge = 0;                            // from then on
  double lastAttempt = 0;
  std::optional<StorebagFault> fault{};  // of the last attempt
  bool refreshIsWished = false;          // filled in by the board
};

// The cache writes what it does here as it does it. Threads: any.
class StorebagBoard {
 public:
  void set(const std::string& name, StorebagStanding standing);
  // `changed` is called when something is written; it may not block. Before the first time.
  void notify(std::function<void()> changed) { _changed = std::move(changed); }
  StorebagStanding of(const std::string& name) const;
  std::map<std::string, StorebagStanding> all() const;

  // The next request for the storebag fetches it, whatever its age and however short a time ago the
  // last attempt failed.
  void wishRefresh(const std::string& name);
  // The same for each whose last attempt failed, and the clients of storebags that have no name
  // need not wait either.
  void forgetPauses();
  std::uint64_t timesForgotten() const;
  bool refreshIsWished(const std::string& name) const;
  void refreshBegins(const std::string& name);

 private:
  std::function<void()> _changed;
  mutable Mutex _mutex;
  std::map<std::string, StorebagStanding> _standings GUARDED_BY(_mutex);
  std::set<std::string> _wished GUARDED_BY(_mutex);
  std::uint64_t _timesForgotten GUARDED_BY(_mutex) = 0;
};

}  // namespace corvid
