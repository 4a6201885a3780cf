#include "rpc/ControlServer.h"

#include <string>
#include <utility>
#include <vector>

#include "protocol/wire/ValueCodec.h"

namespace corvid {

namespace {

constexpr kj::Duration longestWait = 1 * kj::SECONDS;
// Of the lines in one answer.
constexpr std::size_t mostLineBytes = std::size_t{1} << 20;

ControlInterface::SessionNumber numberOrAll(std::uint64_t session) {
  return session == 0 ? ControlInterface::SessionNumber() : session;
}

template <class Init>
void write(const std::vector<std::string>& lines, Init init) {
  auto list = init(wire::count(lines.size()));
  for (capnp::uint at = 0; at < list.size(); ++at) list.set(at, wire::textReader(lines[at]));
}

}  // namespace

kj::Promise<void> ControlServer::status(StatusContext context) {
  context.getResults().setJson(wire::textReader(_control->status()));
  return kj::READY_NOW;
}

kj::Promise<void> ControlServer::sessions(SessionsContext context) {
  const auto session = numberOrAll(context.getParams().getSession());
  context.getResults().setJson(wire::textReader(_control->sessions(session)));
  return kj::READY_NOW;
}

kj::Promise<void> ControlServer::explain(ExplainContext context) {
  const auto parameters = context.getParams();
  const auto last = parameters.getLast();
  const std::vector<std::string> lines = _control->explain(
      numberOrAll(parameters.getSession()), last == 0 ? static_cast<std::size_t>(-1) : last);
  write(lines, [&](auto size) { return context.getResults().initLines(size); });
  return kj::READY_NOW;
}

kj::Promise<void> ControlServer::watch(WatchContext context) {
  const auto parameters = context.getParams();
  if (_watch) {
    context.getResults().setRefusal("this connection watches already");
  } else if (parameters.getPayload() && !_seesAll) {
    context.getResults().setRefusal("records are shown to user 0 only");
  } else {
    const auto wake = [outbox = _outbox, waiter = _waiter] {
      outbox->post([waiter] {
        if (auto fulfiller = kj::mv(*waiter); fulfiller.get() != nullptr) fulfiller->fulfill();
      });
    };
    _watch = _control->watch(numberOrAll(parameters.getSession()), parameters.getPayload(), wake);
  }
  return kj::READY_NOW;
}

kj::Promise<void> ControlServer::nextLines(NextLinesContext context) {
  if (!_watch || writeLines(context)) return kj::READY_NOW;
  auto pair = kj::newPromiseAndFulfiller<void>();
  *_waiter = kj::mv(pair.fulfiller);
  return pair.promise.exclusiveJoin(_port.after(longestWait)).then([this, context]() mutable {
    *_waiter = nullptr;
    writeLines(context);
  });
}

bool ControlServer::writeLines(NextLinesContext& context) {
  const std::vector<std::string> lines = _watch->take(mostLineBytes);
  write(lines, [&](auto size) { return context.getResults().initLines(size); });
  return !lines.empty();
}

kj::Promise<void> ControlServer::metrics(MetricsContext context) {
  context.getResults().setText(wire::textReader(_control->metrics()));
  return kj::READY_NOW;
}

kj::Promise<void> ControlServer::storebag(StorebagContext context) {
  const capnp::Text::Reader name = context.getParams().getName();
  if (!_seesAll)
    context.getResults().setRefusal("storebags are shown to user 0 only");
  else if (const auto content = _control->storebag({name.cStr(), name.size()}))
    context.getResults().setPropertyList(
        kj::arrayPtr(reinterpret_cast<const kj::byte*>(content->data()), content->size()));
  return kj::READY_NOW;
}

kj::Promise<void> ControlServer::refresh(RefreshContext context) {
  const auto parameters = context.getParams();
  const std::int32_t type = parameters.getClientType();
  const auto touched =
      _control->refresh(type < 0 ? std::optional<std::int32_t>() : type, parameters.getStates());
  write(touched, [&](auto size) { return context.getResults().initTouched(size); });
  return kj::READY_NOW;
}

kj::Promise<void> ControlServer::setLogLevel(SetLogLevelContext context) {
  const auto parameters = context.getParams();
  _control->setLogLevel(parameters.getLevel(), parameters.getSeconds());
  return kj::READY_NOW;
}

}  // namespace corvid
