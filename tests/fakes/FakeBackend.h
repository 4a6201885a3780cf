// A backend that notes what a session asks of it and answers as the test says.
//
// Threads: filled and read by the test while no other thread works, except the held flushes, whose
// completions may be called on any thread.
#pragma once

#include <fmt/format.h>

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "backends/CorvidBackend.h"
#include "tests/fakes/Journal.h"
#include "tests/fakes/TestIdentity.h"

namespace corvid {

class FakeBackend final : public CorvidBackend {
 public:
  struct Sent {
    std::optional<Dictionary> payload;
    TimeValue timestamp;
    std::uint16_t method;
    std::uint16_t respCode;
    MessageFlag flag;
  };
  struct FlushAnswer {
    std::optional<std::string> result;
    std::optional<CorvidError> error;
  };

  FakeBackend(std::string backendName, std::shared_ptr<Journal> journal,
              std::optional<std::string> displayURL = std::nullopt)
      : CorvidBackend(std::move(backendName), {}, shared(), std::move(displayURL)),
        _journal(std::move(journal)) {}
  ~FakeBackend() override { note("gone"); }

  void setExchangeGate(std::shared_ptr<ExchangeGate> given) override { gate = std::move(given); }
  void cleanup() override { note("cleanup"); }
  void updateState() override {
    note("updateState");
    if (onUpdateState) onUpdateState();
    setState(stateAfterUpdate);
  }
  using CorvidBackend::sendMessage;
  std::optional<std::string> sendMessage(const Dictionary* payload, const TimeValue& timestamp,
                                         std::uint16_t method, std::uint16_t respCode, EventID,
                                         MessageFlag flag) override {
    note(fmt::format("sendMessage {} {}", method, respCode));
    sent.push_back(
        {payload ? std::optional(*payload) : std::nullopt, timestamp, method, respCode, flag});
    return sendAnswer;
  }
  std::optional<std::string> flushMessagesWithCompletion(FlushCompletion completion) override {
    note("flush");
    if (flushAnswer)
      completion(flushAnswer->result, flushAnswer->error);
    else
      heldFlushes.push_back(std::move(completion));
    return std::nullopt;
  }
  bool uploadFileAtPath(const std::string& path, const std::string& extensionToken) override {
    note(fmt::format("uploadFile {} {}", path, extensionToken));
    return uploadAnswer;
  }
  bool uploadLogData(const Array& logData) override {
    note(fmt::format("uploadLogData {}", logData.size()));
    return uploadAnswer;
  }
  void setCorrelatedSessionID(std::string sessionID) override {
    note("setCorrelatedSessionID");
    setCombinedSessionIDString(std::move(sessionID));
  }

  // Answers.
  std::optional<std::string> sendAnswer;
  BackendState stateAfterUpdate = BackendState::sending;
  bool uploadAnswer = false;
  // Given at once when set; otherwise the flush is held for the test to complete.
  std::optional<FlushAnswer> flushAnswer = FlushAnswer{};
  // Run when the state is computed.
  std::function<void()> onUpdateState;

  std::shared_ptr<ExchangeGate> gate;
  std::vector<Sent> sent;
  std::vector<FlushCompletion> heldFlushes;

 private:
  void note(const std::string& what) { _journal->add(name() + " " + what); }

  const std::shared_ptr<Journal> _journal;
};

}  // namespace corvid
