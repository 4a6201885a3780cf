#include "client/TestSink.h"

#include <algorithm>
#include <utility>

#include "client/Poll.h"

namespace corvid::library {

namespace {

bool isOfMessage(std::size_t operation) {
  switch (operation) {
    case CORVID_OPERATION_SEND_MESSAGE:
    case CORVID_OPERATION_SEND_MESSAGE_WITH_DICTIONARY:
    case CORVID_OPERATION_FINISH:
    case CORVID_OPERATION_SEND_SINGLE_MESSAGE: return true;
    default: return false;
  }
}

}  // namespace

TestSink::TestSink() {
  for (std::size_t operation = 0; operation < operations; ++operation) {
    Answer& answer = _plans[operation].otherwise.answer;
    if (isOfMessage(operation)) answer.disposition = CORVID_DISPOSITION_TAKEN;
    answer.states = States{.reason = "notConfigured"};
    answer.success = true;
  }
}

bool TestSink::isReachable() const {
  const MutexLock lock(_mutex);
  return _isReachable;
}

void TestSink::setReachable(bool reachable) {
  const MutexLock lock(_mutex);
  _isReachable = reachable;
}

std::unique_ptr<Link> TestSink::link(Session& session) {
  return std::make_unique<SinkLink>(session, shared_from_this());
}

std::size_t TestSink::callCount() const {
  const MutexLock lock(_mutex);
  return _calls.size();
}

bool TestSink::awaitCalls(std::size_t count, std::chrono::milliseconds limit) const {
  const auto until = std::chrono::steady_clock::now() + limit;
  const MutexLock lock(_mutex);
  while (_calls.size() < count)
    if (_called.wait_until(_mutex, until) == std::cv_status::timeout) return _calls.size() >= count;
  return true;
}

SharedCall TestSink::call(std::size_t index) const {
  const MutexLock lock(_mutex);
  return index < _calls.size() ? _calls[index] : nullptr;
}

void TestSink::clear() {
  std::vector<SharedCall> calls;
  const MutexLock lock(_mutex);
  calls.swap(_calls);
}

void TestSink::plan(corvid_operation_t operation, std::size_t times, Plan plan) {
  if (isOfMessage(operation) && plan.answer.disposition == CORVID_DISPOSITION_UNKNOWN)
    plan.answer.disposition = CORVID_DISPOSITION_TAKEN;
  const MutexLock lock(_mutex);
  Plans& plans = _plans[operation];
  if (times == 0)
    plans.otherwise = std::move(plan);
  else
    plans.next.push_back({times, std::move(plan)});
}

TestSink::Plan TestSink::take(const SharedCall& call) {
  const MutexLock lock(_mutex);
  _calls.push_back(call);
  _called.notify_all();
  Plans& plans = _plans[call->request.operation];
  if (plans.next.empty()) return plans.otherwise;
  Planned& next = plans.next.front();
  if (--next.times > 0) return next.plan;
  Plan last = std::move(next.plan);
  plans.next.pop_front();
  return last;
}

void TestSink::attach(SinkLink& link) {
  const MutexLock lock(_mutex);
  _attached.push_back({&link, {}});
}

void TestSink::detach(SinkLink& link) {
  const MutexLock lock(_mutex);
  std::erase_if(_attached, [&](const Attached& each) { return each.link == &link; });
}

void TestSink::happen(const Event& event) {
  const MutexLock lock(_mutex);
  for (Attached& each : _attached) {
    each.events.push_back(event);
    each.link->wake();
  }
}

std::vector<TestSink::Event> TestSink::eventsOf(const SinkLink& link) {
  const MutexLock lock(_mutex);
  const auto found = std::ranges::find(_attached, &link, &Attached::link);
  return std::exchange(found->events, {});
}

SinkLink::SinkLink(Session& session, std::shared_ptr<TestSink> sink)
    : Link(session), _sink(std::move(sink)) {
  _sink->attach(*this);
}

SinkLink::~SinkLink() { _sink->detach(*this); }

void SinkLink::send(std::uint32_t question, const Parcel& parcel) {
  Pending pending{question, {}};
  for (const SharedCall& call : parcel.calls) pending.calls.emplace_back(call, _sink->take(call));
  _pending.push_back(std::move(pending));
}

void SinkLink::end(Pending pending) {
  for (auto& [call, plan] : pending.calls) {
    if (plan.isWithheld)
      withhold(call);
    else if (plan.error != CORVID_OK)
      failCall(call, plan.error);
    else
      endCall(call, std::move(plan.answer));
  }
  done(pending.question);
}

void SinkLink::turn(Session::Time until, bool hostIsBusy) {
  if (_pending.empty() || hostIsBusy) awaitNews(_session.news(), until);
  if (hostIsBusy) return;
  for (Pending& pending : std::exchange(_pending, {})) end(std::move(pending));
  for (const TestSink::Event& event : _sink->eventsOf(*this)) event(*this);
}

}  // namespace corvid::library
