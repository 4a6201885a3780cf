// A host of libcorvid for tests, with the outcome of each call as a text.
#pragma once

#include <atomic>
#include <chrono>
#include <corvid/corvid.hpp>
#include <cstdint>
#include <future>
#include <memory>
#include <optional>
#include <string>

namespace corvid {

class TestClient {
 public:
  // How a call ended: what was answered ("none" where that is absent), "unanswered", or the
  // library's text for the error.
  class Outcome {
   public:
    Outcome() : _state(std::make_shared<State>()), _future(_state->promise.get_future().share()) {}
    // The first counts.
    void set(std::string text) const;
    bool isThere() const;
    // Waits; "timed out" after patience.
    std::string text() const;

   private:
    struct State {
      std::atomic<bool> isSet = false;
      std::promise<std::string> promise;
    };
    std::shared_ptr<State> _state;
    std::shared_future<std::string> _future;
  };

  struct Description {
    int clientType = 5;
    bool batches = false;
    // With a name the client requires user info.
    std::optional<std::string> clientName = std::nullopt;
    std::string serviceName = "Service";
  };
  static client::Dictionary sessionInfo(const Description& description);
  static std::optional<client::Dictionary> userInfo(const Description& description);

  explicit TestClient(const std::string& root,
                      std::chrono::milliseconds deadline = std::chrono::seconds(10));

  // Describes the client and starts its configuration: the reporting states joined by ",".
  Outcome configure(const Description& description);
  // An event with the payload {"mark": mark}.
  Outcome send(const std::string& mark, int flag = 0, std::uint16_t category = 7);
  Outcome send(const client::Dictionary& payload, int flag = 0, std::uint16_t category = 7);
  // The daemon's error as "CODE DESCRIPTION", or "flushed".
  Outcome flush();
  Outcome fetchStates(client::DictionaryView userInfo);
  Outcome displayURL();
  // "accepted" or "refused".
  Outcome upload(const std::string& path);
  Outcome single(const client::Dictionary& sessionInfo, const client::Dictionary& payload);

  client::Session& session() { return _session; }
  int invalidations() const { return _invalidations; }
  int reconnections() const { return _reconnections; }

 private:
  std::atomic<int> _invalidations = 0;
  std::atomic<int> _reconnections = 0;
  client::Session _session;  // last: its callbacks use the others
};

}  // namespace corvid
