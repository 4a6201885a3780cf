#include "client/Call.h"

#include <exception>

#include "base/Reading.h"
#include "protocol/Keys.h"
#include "protocol/Limits.h"

namespace corvid::library {

namespace {

// What travels in one call: enough that its cost no longer counts, little enough that the daemon's
// answers keep coming.
constexpr std::size_t mostEvents = 64;
constexpr std::size_t mostWords = (std::size_t{256} << 10) / sizeof(capnp::word);
static_assert(mostEvents <= limits::messagesPerCall);

}  // namespace

void SessionInfo::encode(wire::ClientSession::SetSessionInfoParams::Builder target) const {
  wire::encode(sessionInfo, [&](auto size) { return target.initSessionInfo(size); });
  wire::encode(userInfo, [&](auto size) { return target.initUserInfo(size); });
  wire::encode(frameworksToCheck, [&](auto size) { return target.initFrameworksToCheck(size); });
  target.setHasAggregationBlock(hasAggregationBlock);
}

void Replay::replaceUserInfo(const std::optional<Dictionary>& userInfo) {
  if (!sessionInfo) return;
  SessionInfo info = *sessionInfo;
  if (!userInfo && booleanAt(info.sessionInfo, kCorvidSessionInfoRequireUserInfo)) return;
  info.userInfo = userInfo;
  sessionInfo = std::make_shared<const SessionInfo>(std::move(info));
}

kj::Promise<void> Replay::send(Daemon& daemon) const {
  kj::Promise<void> taken = kj::READY_NOW;
  if (sessionInfo) {
    auto request = daemon.setSessionInfoRequest();
    sessionInfo->encode(request);
    taken = request.send().ignoreResult();
  }
  if (!startConfig) return taken;
  return taken.then([started = daemon.startConfigRequest().send().ignoreResult()]() mutable {
    return kj::mv(started);
  });
}

void Event::encode(wire::Message::Builder message) const {
  message.setReplyWanted(_completion.wantsReply());
  if (!_kind)
    return wire::encode(_content, [&](auto size) { return message.initDictionary(size); });
  auto event = message.initEvent();
  event.setCategory(_kind->category);
  event.setType(_kind->type);
  wire::encode(_content, [&](auto size) { return event.initPayload(size); });
}

bool EventBatch::hasRoomFor(const Call& event) const {
  const wire::Extent& extent = event.extent();
  return _events.empty() || (_events.size() < mostEvents && _words + extent.words <= mostWords &&
                             _values + extent.values <= limits::valuesPerMessage);
}

void EventBatch::add(std::unique_ptr<Event> event) {
  _words += event->extent().words;
  _values += event->extent().values;
  _events.push_back(std::move(event));
}

kj::Promise<void> EventBatch::perform(Daemon& daemon) {
  constexpr std::size_t wordsPerMessage = 4;
  auto request = daemon.sendMessagesRequest(sizeHint(_words + _events.size() * wordsPerMessage));
  auto messages = request.initMessages(wire::count(_events.size()));
  for (capnp::uint i = 0; i < messages.size(); ++i) _events[i]->encode(messages[i]);
  return request.send().then([this](auto&& response) {
    const auto results = response.getResults();
    for (capnp::uint i = 0; i < _events.size(); ++i) {
      if (i >= results.size()) {
        _events[i]->fail(CORVID_ERROR_BAD_REPLY);
        continue;
      }
      try {
        _events[i]->answer(results[i]);
      } catch (const std::exception&) {
        _events[i]->fail(CORVID_ERROR_BAD_REPLY);
      }
    }
  });
}

void EventBatch::fail(int error) {
  for (const auto& event : _events) event->fail(error);
}

}  // namespace corvid::library
