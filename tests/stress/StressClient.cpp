#include "tests/stress/StressClient.h"

#include <fmt/format.h>

#include <algorithm>
#include <cctype>
#include <chrono>
#include <future>
#include <memory>
#include <utility>

#include "tests/support/Waiting.h"

namespace corvid {

namespace {

using namespace std::chrono_literals;
using client::Status;

// Not accepted for now.
bool isPassing(Status status) {
  return status == CORVID_ERROR_NOT_CONNECTED || status == CORVID_ERROR_QUEUE_FULL;
}

Status insist(const std::function<Status()>& call) {
  Status status = CORVID_OK;
  (void)waitUntil([&] { return !isPassing(status = call()); }, patience, 100us);
  return status;
}

}  // namespace

StressClient::StressClient(std::string root, int number, int chain, int level, unsigned seed,
                           std::function<bool(int number)> takeGone)
    : _root(std::move(root)),
      _number(number),
      _chain(chain),
      _level(level),
      _mayAggregate((chain + level) % 3 != 0),
      _takeGone(std::move(takeGone)),
      _random(seed) {
  chooseName();
}

void StressClient::act(int things) {
  for (int i = 0; i < things; ++i) {
    if (!isConnected()) {
      if (below(2) == 0) connect();
      continue;
    }
    switch (below(10)) {
      case 0: vanish(); break;
      case 1:
      case 2: describe(); break;
      case 3:
      case 4: changeName(); break;
      default: send();
    }
  }
  if (isConnected())
    await([&](auto finished) {
      return _session->fetchDisplayURL([](Status, auto) {}, std::move(finished));
    });
}

// Half of the clients leave without waiting for what they have asked for.
void StressClient::vanish() {
  _session.reset();
  if (!std::exchange(_isStarted, false)) return;
  if (!waitUntil([&] { return _takeGone(_number); }, patience, 200us)) ++_surprises;
}

void StressClient::connect() {
  Session::Options options;
  options.root = _root;
  options.deadline = std::chrono::milliseconds(below(2) == 0 ? 1 : 10000);
  options.message = [this](auto...) { ++_deliveries; };
  _session.emplace(std::move(options));
  if (!insist([&] { return _session->connect(); })) ++_surprises;
}

void StressClient::describe() {
  chooseName();
  client::Dictionary info;
  (void)info.set(kCorvidSessionInfoClientType, clientTypes[static_cast<std::size_t>(_level)]);
  (void)info.set(kCorvidSessionInfoSessionID, _number);
  (void)info.set(kCorvidSessionInfoRequireUserInfo, true);
  (void)info.set(kCorvidSessionInfoBatchEvent, below(2) == 0);
  const bool aggregates = _mayAggregate && below(2) == 0;
  await([&](auto finished) {
    return _session->setSessionInfo(info, userInfo(), client::ArrayView(nullptr), aggregates,
                                    std::move(finished));
  });
  await([&](auto finished) {
    return _session->startConfig(
        [this](Status status, std::optional<client::Array> states) {
          if (!status || !states) ++_surprises;
        },
        std::move(finished));
  });
  _isStarted = true;
}

void StressClient::send() {
  client::Dictionary payload;
  (void)payload.set("sender", _number);
  for (int i = below(8); i >= 0; --i) {
    client::Dictionary message;
    (void)message.set(kCorvidMessageParametersCategory, below(4));
    (void)message.set(kCorvidMessageParametersType, below(3));
    (void)message.set(kCorvidMessageParametersFlag, below(4));
    (void)message.set(kCorvidMessageParametersPayload, payload);
    if (!insist([&] { return _session->sendMessage(message); })) ++_surprises;
  }
  if (below(3) == 0 && !insist([&] { return _session->flush(); })) ++_surprises;
}

// Only once it has backends: without any it would stand at the top of the chain.
void StressClient::changeName() {
  if (!_isStarted) return;
  chooseName();
  await([&](auto finished) {
    return _session->fetchStates(userInfo(), nullptr, std::move(finished));
  });
}

// Its chain's name in two spellings, or another one to which only clients of its chain go: no two
// clients of a level ever meet.
void StressClient::chooseName() {
  _name = fmt::format("Chain {}{}", _chain, below(3) == 0 ? " away" : "");
  if (below(3) == 0)
    std::ranges::transform(_name, _name.begin(),
                           [](unsigned char c) { return static_cast<char>(std::toupper(c)); });
}

client::Dictionary StressClient::userInfo() const {
  client::Dictionary info;
  (void)info.set(kCorvidUserInfoClientName, std::string_view(_name));
  (void)info.set(kCorvidUserInfoServiceName, "Stress");
  return info;
}

void StressClient::await(const std::function<Status(Session::Finished)>& call) {
  const auto ended = std::make_shared<std::promise<void>>();
  auto end = ended->get_future();
  const Status accepted =
      insist([&] { return call([ended](corvid_outcome_t) { ended->set_value(); }); });
  if (!accepted || end.wait_for(patience) != std::future_status::ready) ++_surprises;
}

}  // namespace corvid
