// The body of a post or of log data, on its way to becoming a message of the log.
#pragma once

#include <chrono>
#include <cstddef>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "gateway/Budget.h"
#include "gateway/Holding.h"
#include "gateway/body/Digest.h"
#include "gateway/body/Exchange.h"
#include "gateway/body/Gunzip.h"
#include "gateway/body/JSONCheck.h"

namespace corvid::fleet {

// Unpacks, checks and digests the body while it arrives, a bounded piece at a time, so that nobody
// else waits for a large one. What is stored is the unpacked body.
class PostBody final : public Exchange {
 public:
  enum class Kind { events, logData };
  using Headers = std::vector<std::pair<std::string, std::string>>;

  struct Request {
    Kind kind;
    bool isGzip;
    std::size_t length;  // as announced, or 0
    // Of the message. `client` tells apart clients whose bodies are the same: it goes into the ID.
    Headers headers;
    std::string client;
    std::chrono::steady_clock::duration hold;  // how long it may wait for the log
    std::shared_ptr<Budget::Share> share{};    // of the client; none: whatever there is
  };

  // All are borrowed, but the request.
  PostBody(Request request, Gunzips& gunzips, Budget& budget, Holding& holding);

  Wish take(std::string_view piece) override;
  Wish work() override;
  void finish(Done done) override;

 private:
  // Of unpacked bytes, between two turns.
  static constexpr std::size_t turnBytes = std::size_t{256} << 10;

  // What unpacking takes beside its result.
  static constexpr std::size_t gunzipBytes = std::size_t{48} << 10;

  bool beginUnpacking();
  Wish refuseForMemory() {
    return refuse(_charge.isBeyondShare() ? Rule::clientMemory : Rule::memoryFull);
  }
  Wish unpack(std::string_view& packed);
  // Takes what stands behind the first `checked` bytes of the body.
  Wish check(std::size_t checked, bool isWhole);
  bool makeRoom(std::size_t size);
  // For a body of this capacity and all that it takes to read it; false where there is no room.
  bool charge(std::size_t capacity);
  std::optional<Refusal> end();
  LogMessage message();

  Request _request;
  Gunzips& _gunzips;
  Holding& _holding;
  Budget::Charge _charge;
  Gunzips::Lent _gunzip;
  Digest _digest;
  std::optional<JSONCheck> _json;
  std::size_t _sent = 0;
  std::string _packed;  // given and not unpacked yet
  std::string _body;
};

}  // namespace corvid::fleet
