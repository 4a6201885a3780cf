// The storebag server of simulated devices: what is published, and how it answers on a bad day.
#pragma once

#include <chrono>
#include <cstddef>
#include <map>
#include <optional>
#include <string>

#include "base/Value.h"
#include "platform/HTTPClient.h"
#include "tests/daemon/RandomInputs.h"

namespace corvid::simulation {

// A storebag and its envelopes.
struct Publication {
  Dictionary content;
  std::string envelope;
  std::string forged;  // signed by a stranger
};

// One of many, the same in each run; signed when it is first asked for.
inline constexpr std::size_t publications = 400;
const Publication& publication(std::size_t number);

// How the server is when the next request comes.
struct ServerMood {
  enum class Kind { well, unreachable, cut, forged, empty, noSuchPage };
  Kind kind = Kind::well;
  std::chrono::milliseconds takes{20};
  std::optional<std::int32_t> maxAge{};
};

// An answer in its meaning.
struct FetchAnswer {
  enum class Body { nothing, whole, forged, noStorebag };
  bool isAnswer = false;  // else the exchange failed
  std::optional<std::int32_t> maxAge{};
  std::optional<std::string> lastModified{};
  Body body = Body::nothing;
  const Publication* storebag = nullptr;  // where the body is whole
};

// Threads: one.
class StorebagServer {
 public:
  explicit StorebagServer(RandomInputs& dice) : _dice(dice) {}

  // Another storebag stands under the name from now on: any, or this one, which is borrowed.
  void publish(const std::string& name);
  void publish(const std::string& name, const Publication& storebag,
               std::optional<std::string> lastModified);
  void becomeAnyhow();  // for the next request

  ServerMood mood{};

  // What a request for that name is answered now.
  FetchAnswer answer(const std::string& name,
                     const std::optional<std::string>& ifModifiedSince) const;
  // And the bytes of it.
  HTTPOutcome rendered(const FetchAnswer& answer) const;

 private:
  struct Standing {
    const Publication* storebag = nullptr;
    std::optional<std::string> lastModified{};
  };

  RandomInputs& _dice;
  std::map<std::string, Standing> _published;
  int _publications = 0;
};

}  // namespace corvid::simulation
