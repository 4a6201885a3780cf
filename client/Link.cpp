#include "client/Link.h"

#include <algorithm>
#include <cstddef>
#include <exception>
#include <optional>
#include <utility>

#include "base/Thread.h"
#include "client/DaemonLink.h"
#include "client/Opaque.h"
#include "client/TestSink.h"
#include "protocol/Limits.h"

namespace corvid::library {

namespace {

constexpr std::size_t mostBatchesUnderWay = 4;
constexpr std::size_t mostCallsUnderWay = 32;
static_assert(mostCallsUnderWay < limits::callsInFlight);

const corvid_dictionary_t* orNone(const std::optional<Dictionary>& dictionary) {
  return dictionary ? outside(&*dictionary) : nullptr;
}

std::size_t bytesOf(const std::optional<Dictionary>& dictionary) {
  return dictionary ? footprint(*dictionary) : 0;
}

std::size_t bytesOf(const Answer& answer) {
  constexpr std::size_t states = 1024;  // and the like, which are all small
  return sizeof answer + (answer.text ? answer.text->size() : 0) +
         (answer.reporting || answer.states ? states : 0);
}

// Once, whoever finds first that it has ended.
void failCallOf(Session& session, const SharedCall& call, int error) {
  if (std::exchange(call->hasEnded, true) || !call->completion.isHeard()) return;
  session.callbacks().run([call, error] { call->completion.fail(error); });
}

}  // namespace

template <class Handler, class Call>
void Link::tellHost(Handler handler, Call call, std::size_t bytes) {
  if (handler == nullptr || _session.isStopping()) return;
  _session.callbacks().run(std::move(call), bytes);
}

void Link::run(const Wishes& wishes, bool isFirst) {
  const MutexLock lock(_atWork);
  _isFirst = isFirst;
  std::vector<SharedCall> told = wishes.calls();
  _wishesLeft = told.size();
  if (told.empty()) tellConnected();
  for (SharedCall& call : told) start({{std::move(call)}}, true);
  while (!_isLost && !_session.isStopping()) {
    const bool isBusy = _session.hostIsBusy();
    if (!isBusy) sendWhatWaits();
    failUnsent();
    if (_isLost) return;
    turn(expire(), isBusy);
  }
}

void Link::tellConnected() {
  const corvid_options_t& host = _session.handlers();
  tellHost(host.connected, [&host] { host.connected(host.context); });
  if (_isFirst) return;
  tellHost(host.reconnected, [&host] { host.reconnected(host.context); });
}

void Link::sendWhatWaits() {
  while (_underWay.size() < mostCallsUnderWay && takesMore() && !_isLost) {
    auto parcel = _session.next(_batchesUnderWay < mostBatchesUnderWay);
    if (!parcel) break;
    start(*std::move(parcel), false);
  }
  if (_underWay.empty()) _session.nothingUnderWay();
}

bool Link::sendMeanwhile() {
  if (!_atWork.try_lock()) return false;
  bool isDone = false;
  try {
    if (!_isLost && !_session.isStopping() && !_session.hostIsBusy()) {
      sendWhatWaits();
      isDone = leaveNow() && !_isLost && !_session.hasAnswerDeadline() &&
               std::ranges::none_of(_underWay, &UnderWay::isUnsent);
    }
  } catch (const std::bad_alloc&) {
  }
  _atWork.unlock();
  return isDone;
}

std::uint32_t Link::freeQuestion() const {
  // The first is the connection's own.
  for (std::uint32_t question = 1;; ++question)
    if (parcelOf(question) == nullptr) return question;
}

void Link::start(Parcel parcel, bool isWish) {
  const std::uint32_t question = freeQuestion();
  if (parcel.isBatch()) ++_batchesUnderWay;
  _underWay.push_back({question, std::move(parcel), isWish});
  try {
    send(question, _underWay.back().parcel);
  } catch (const std::bad_alloc&) {
    _underWay.back().isUnsent = true;
  }
}

void Link::failUnsent() {
  for (auto place = _underWay.begin(); place != _underWay.end();) {
    const UnderWay& each = *place++;
    if (each.isUnsent) fail(each.question, CORVID_ERROR_NO_MEMORY);
  }
}

Link::Place Link::find(std::uint32_t question) {
  return std::ranges::find(_underWay, question, &UnderWay::question);
}

const Parcel* Link::parcelOf(std::uint32_t question) const {
  const auto place = std::ranges::find(_underWay, question, &UnderWay::question);
  return place != _underWay.end() ? &place->parcel : nullptr;
}

void Link::endCall(const SharedCall& call, Answer answer) {
  if (std::exchange(call->hasEnded, true) || !call->completion.isHeard()) return;
  const std::size_t bytes = bytesOf(answer);
  _session.callbacks().run([call, answer = std::move(answer)] { call->completion.answer(answer); },
                           bytes);
}

void Link::failCall(const SharedCall& call, int error) { failCallOf(_session, call, error); }

Link::UnderWay Link::take(Place place) {
  UnderWay underWay = std::move(*place);
  _underWay.erase(place);
  if (underWay.parcel.isBatch()) --_batchesUnderWay;
  return underWay;
}

void Link::answer(std::uint32_t question, std::vector<Answer> answers) {
  const Place place = find(question);
  if (place == _underWay.end()) return;
  const UnderWay ended = take(place);
  const std::vector<SharedCall>& calls = ended.parcel.calls;
  for (std::size_t i = 0; i < calls.size(); ++i) {
    if (i < answers.size())
      endCall(calls[i], std::move(answers[i]));
    else
      failCall(calls[i], CORVID_ERROR_BAD_REPLY);
  }
  if (ended.isWish) wishTaken();
}

// Of a wish that failed the host hears nothing.
void Link::wishTaken() {
  if (--_wishesLeft == 0) tellConnected();
}

void Link::withhold(const SharedCall& call) { _withheld.push_back(call); }

void Link::done(std::uint32_t question) {
  if (take(find(question)).isWish) wishTaken();
}

void Link::fail(std::uint32_t question, int error) {
  const Place place = find(question);
  if (place == _underWay.end()) return;
  const UnderWay ended = take(place);
  for (const SharedCall& call : ended.parcel.calls) failCall(call, error);
}

void Link::failAll(int error) {
  for (const UnderWay& underWay : std::exchange(_underWay, {}))
    for (const SharedCall& call : underWay.parcel.calls) failCall(call, error);
  for (const SharedCall& call : std::exchange(_withheld, {})) failCall(call, error);
}

Session::Time Link::expire() {
  if (!_session.hasAnswerDeadline()) return Session::Time::max();
  const Session::Time now = std::chrono::steady_clock::now();
  std::vector<SharedCall> expired;
  Session::Time next = Session::Time::max();
  const auto look = [&](const SharedCall& call) {
    if (call->hasEnded) return;
    if (call->expires <= now)
      expired.push_back(call);
    else
      next = std::min(next, call->expires);
  };
  for (const UnderWay& underWay : _underWay) std::ranges::for_each(underWay.parcel.calls, look);
  std::erase_if(_withheld, [](const SharedCall& call) { return call->hasEnded; });
  std::ranges::for_each(_withheld, look);
  next = std::min(next, _session.addExpired(now, expired));
  for (const SharedCall& call : expired) failCall(call, CORVID_ERROR_TIMED_OUT);
  return next;
}

void Link::deliver(Delivery delivery) {
  const corvid_options_t& host = _session.handlers();
  const std::size_t bytes = sizeof delivery + bytesOf(delivery.message) + bytesOf(delivery.payload);
  tellHost(
      host.message,
      [&host, delivery = std::move(delivery)] {
        host.message(host.context, orNone(delivery.message), delivery.timestamp, delivery.category,
                     delivery.type, orNone(delivery.payload));
      },
      bytes);
}

void Link::tellStates(States states) {
  const corvid_options_t& host = _session.handlers();
  constexpr std::size_t bytes = 1024;
  tellHost(
      host.states_changed,
      [&host, states = std::move(states)] { host.states_changed(host.context, &states); }, bytes);
}

namespace {

std::shared_ptr<Link> linkFor(Session& session, Descriptor socket) {
  if (session.sink()) return session.sink()->link(session);
  return std::make_shared<DaemonLink>(session, std::move(socket));
}

void serveConnection(Session& session, Session::Connection connection) {
  std::shared_ptr<Link> link = linkFor(session, std::move(connection.socket));
  session.offer(link);
  link->run(connection.wishes, connection.isFirst);
  const auto waiting = session.leave();
  const bool stopping = session.isStopping();
  const int error = stopping ? CORVID_ERROR_CLOSED : CORVID_ERROR_CONNECTION_LOST;
  link->failAll(error);
  link = nullptr;
  for (const SharedCall& call : waiting) failCallOf(session, call, error);
  const corvid_options_t& host = session.handlers();
  if (!stopping && host.invalidated != nullptr)
    session.callbacks().run([&host] { host.invalidated(host.context); });
}

}  // namespace

std::thread serve(std::shared_ptr<Session> session) {
  return startThread("libcorvid", [session = std::move(session)] {
    while (auto connection = session->awaitConnection())
      serveConnection(*session, *std::move(connection));
    for (const SharedCall& call : session->leave()) failCallOf(*session, call, CORVID_ERROR_CLOSED);
    const corvid_options_t& host = session->handlers();
    if (host.released != nullptr)
      session->callbacks().run([&host] { host.released(host.context); });
    session->callbacks().end();
  });
}

}  // namespace corvid::library
