// One request behind its head: takes the body and comes to a verdict.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>

#include "gateway/Rule.h"

namespace corvid::fleet {

struct Verdict {
  std::optional<Refusal> refusal{};  // none: stored
  std::string body{};                // of the answer to what was stored
  const char* type = "text/plain; charset=utf-8";
  std::uint64_t events = 0;
};

// Lives on one thread, that of its connection. Where the connection goes first, so does the
// exchange, unless finish() was called: then it comes to its verdict all the same.
class Exchange {
 public:
  enum class Wish {
    more,     // the next piece
    again,    // work(), when others have had their turn
    pause,    // nothing, until `goOn` is called; then work()
    refused,  // nothing any more: see refusal()
  };
  using Done = std::function<void(Verdict)>;

  virtual ~Exchange() = default;

  // A piece of the body, which is there as long as the call.
  virtual Wish take(std::string_view piece) = 0;
  // Goes on with what it was given. Called after `again` and after a pause.
  virtual Wish work() = 0;
  // The body is whole, and the last wish was `more`. `done` hears the verdict once, now or later.
  virtual void finish(Done done) = 0;

  const std::optional<Refusal>& refusal() const { return _refusal; }

 protected:
  Wish refuse(Rule rule, std::string detail = {}) {
    _refusal = Refusal{rule, std::move(detail)};
    return Wish::refused;
  }

 private:
  std::optional<Refusal> _refusal;
};

}  // namespace corvid::fleet
