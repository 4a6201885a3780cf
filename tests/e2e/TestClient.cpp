#include "tests/e2e/TestClient.h"

#include <fmt/format.h>

#include <utility>

#include "tests/e2e/DaemonProcess.h"
#include "tests/support/Waiting.h"

namespace corvid {

namespace {

using client::Session;
using client::Status;

Session::TextCallback textTo(const TestClient::Outcome& outcome) {
  return [outcome](Status status, std::optional<std::string> text) {
    outcome.set(status ? text.value_or("none") : status.text());
  };
}

Session::StatesCallback statesTo(const TestClient::Outcome& outcome) {
  return [outcome](Status status, std::optional<client::Array> states) {
    if (!status || !states) return outcome.set(status ? "none" : status.text());
    std::string joined;
    for (std::size_t i = 0; i < states->size(); ++i)
      joined.append(i == 0 ? "" : ",").append((*states)[i].string().value_or("?"));
    outcome.set(joined);
  };
}

Session::FlushCallback flushTo(const TestClient::Outcome& outcome) {
  return [outcome](Status status, std::optional<std::string>, std::optional<client::Error> error) {
    if (!status) return outcome.set(status.text());
    outcome.set(error ? fmt::format("{} {}", error->code, error->description) : "flushed");
  };
}

// Makes a call with what sets the outcome where no callback does.
template <class Call>
TestClient::Outcome outcomeOf(const TestClient::Outcome& outcome, Call call) {
  const Status accepted = call([outcome](corvid_outcome_t) { outcome.set("unanswered"); });
  if (!accepted) outcome.set(accepted.text());
  return outcome;
}

}  // namespace

void TestClient::Outcome::set(std::string text) const {
  if (!_state->isSet.exchange(true)) _state->promise.set_value(std::move(text));
}

bool TestClient::Outcome::isThere() const {
  return _future.wait_for(std::chrono::seconds(0)) == std::future_status::ready;
}

std::string TestClient::Outcome::text() const {
  if (_future.wait_for(patience) != std::future_status::ready) return "timed out";
  return _future.get();
}

client::Dictionary TestClient::sessionInfo(const Description& description) {
  client::Dictionary info;
  (void)info.set(kCorvidSessionInfoClientType, description.clientType);
  (void)info.set(kCorvidSessionInfoClientVersion, 3);
  (void)info.set(kCorvidSessionInfoSessionID, 42);
  (void)info.set(kCorvidSessionInfoBatchEvent, description.batches);
  (void)info.set(kCorvidSessionInfoRequireUserInfo, description.clientName.has_value());
  return info;
}

std::optional<client::Dictionary> TestClient::userInfo(const Description& description) {
  if (!description.clientName) return std::nullopt;
  client::Dictionary info;
  (void)info.set(kCorvidUserInfoClientName, *description.clientName);
  (void)info.set(kCorvidUserInfoServiceName, description.serviceName);
  return info;
}

TestClient::TestClient(const std::string& root, std::chrono::milliseconds deadline)
    : _session([&] {
        Session::Options options;
        options.root = root;
        options.deadline = deadline;
        options.invalidated = [this] { ++_invalidations; };
        options.reconnected = [this] { ++_reconnections; };
        return options;
      }()) {}

TestClient::Outcome TestClient::configure(const Description& description) {
  const auto user = userInfo(description);
  const Status described =
      _session.setSessionInfo(sessionInfo(description), user ? *user : Session::none());
  Outcome outcome;
  if (!described) outcome.set(described.text());
  return outcomeOf(
      outcome, [&](auto finished) { return _session.startConfig(statesTo(outcome), finished); });
}

TestClient::Outcome TestClient::send(const std::string& mark, int flag, std::uint16_t category) {
  client::Dictionary payload;
  (void)payload.set("mark", std::string_view(mark));
  return send(payload, flag, category);
}

TestClient::Outcome TestClient::send(const client::Dictionary& payload, int flag,
                                     std::uint16_t category) {
  client::Dictionary message;
  (void)message.set(kCorvidMessageParametersCategory, int{category});
  (void)message.set(kCorvidMessageParametersType, 2);
  (void)message.set(kCorvidMessageParametersFlag, flag);
  (void)message.set(kCorvidMessageParametersPayload, payload);
  const Outcome outcome;
  return outcomeOf(outcome, [&](auto finished) {
    return _session.sendMessage(message, textTo(outcome), finished);
  });
}

TestClient::Outcome TestClient::flush() {
  const Outcome outcome;
  return outcomeOf(outcome,
                   [&](auto finished) { return _session.flush(flushTo(outcome), finished); });
}

TestClient::Outcome TestClient::fetchStates(client::DictionaryView userInfo) {
  const Outcome outcome;
  return outcomeOf(outcome, [&](auto finished) {
    return _session.fetchStates(userInfo, statesTo(outcome), finished);
  });
}

TestClient::Outcome TestClient::displayURL() {
  const Outcome outcome;
  return outcomeOf(
      outcome, [&](auto finished) { return _session.fetchDisplayURL(textTo(outcome), finished); });
}

TestClient::Outcome TestClient::upload(const std::string& path) {
  const Outcome outcome;
  const Session::SuccessCallback answered = [outcome](Status status, bool success,
                                                      std::optional<client::Error>) {
    outcome.set(!status ? status.text() : success ? "accepted" : "refused");
  };
  return outcomeOf(outcome, [&](auto finished) {
    return _session.uploadFile(path.c_str(), answered, finished);
  });
}

TestClient::Outcome TestClient::single(const client::Dictionary& sessionInfo,
                                       const client::Dictionary& payload) {
  const Outcome outcome;
  return outcomeOf(outcome, [&](auto finished) {
    return _session.sendSingleMessage(sessionInfo, Session::none(), 7, 2, payload, textTo(outcome),
                                      finished);
  });
}

}  // namespace corvid
