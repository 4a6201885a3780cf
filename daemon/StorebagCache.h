// The daemon's storebags: one record a client type name, with the rules for when to fetch.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>

#include "base/Result.h"
#include "base/Value.h"
#include "config/StorebagFetch.h"
#include "daemon/StorebagBoard.h"

namespace corvid {

// Not synchronised: the agent's mutex guards it and is held during a fetch, so that sessions which
// want the same storebag wait for one fetch.
class StorebagCache {
 public:
  // As fetchStorebagForEnvironmentAndClientType.
  using Fetch = std::function<FetchedStorebag(std::int32_t clientType,
                                              const std::optional<std::string>& lastModified)>;

  // Least time between a failed fetch and the next one for the same client type name.
  static constexpr std::int32_t secondsBetweenAttempts = 900;

  StorebagCache(Fetch fetch, std::shared_ptr<StorebagBoard> board)
      : _fetch(std::move(fetch)), _board(std::move(board)) {}

  // The section that holds for the client type, from its record or fetched; may block. Nothing
  // where none was ever fetched, and always for a client type without a name. A failure where the
  // server sent a storebag without a version: the record stays as it was, and the client whose call
  // led here gets no answer.
  // `user` is whose client asks: after a failed fetch for a client type without a name that user's
  // clients of such types get nothing either until the time between attempts has passed.
  Result<std::optional<Dictionary>> storebag(std::int32_t clientType, std::uint32_t user);
  // Whether it would be fetched now.
  bool wouldFetch(std::int32_t clientType, std::uint32_t user) {
    takeKept(clientType);
    return standing(clientType, user) == Standing::toBeFetched;
  }
  // The version that belongs to it. Never fetches.
  std::optional<std::string> version(std::int32_t clientType) const;
  // Why there is none for the client type. Never fetches.
  Reason whyNone(std::int32_t clientType) const;

 private:
  enum class Standing { fresh, pausing, toBeFetched };
  enum class FetchState { successful, failure };  // "Fetch Successful", "Fetch Failure"

  struct Record {
    std::optional<Dictionary> data;           // "StorebagData", kept when a later fetch fails
    std::optional<std::string> version;       // "StorebagVersion", of that data
    double fetchTime;                         // "StorebagFetchTime", of any attempt, since 1970
    FetchState fetchState;                    // "StorebagFetchState"
    std::int32_t maxAge;                      // "StorebagMaxAge", seconds
    std::optional<std::string> lastModified;  // "StorebagLastModified", for the next fetch
    bool isFallback;                          // the data came from no server
  };

  // The record of the storebag that outlasted an earlier process, where there is no other.
  void takeKept(std::int32_t clientType);
  Standing standing(std::int32_t clientType, std::uint32_t user) const;
  Result<std::optional<Dictionary>> fetchAndCacheStorebag(std::int32_t clientType,
                                                          std::uint32_t user);
  void noteNamelessFailure(std::uint32_t user);
  void showOnBoard(const std::string& name, const FetchedStorebag& fetched, bool successful,
                   bool replaced, double time) const;

  const Fetch _fetch;
  const std::shared_ptr<StorebagBoard> _board;
  std::map<std::string, Record> _cachedStorebags;
  // Of the last fetch for a client type without a name, by user.
  struct NamelessFailure {
    double time;
    std::uint64_t timesForgotten;  // when it happened
  };
  bool pausesFor(const NamelessFailure& failure) const;
  std::map<std::uint32_t, NamelessFailure> _namelessFailures;
};

}  // namespace corvid
