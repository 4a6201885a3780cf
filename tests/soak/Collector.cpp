#include "tests/soak/Collector.h"

#include <fmt/format.h>

#include <utility>

#include "base/Reading.h"

namespace corvid::soak {

using lab::ConnectionFault;

Collector::Collector(std::string name, const lab::TLSIdentity& identity, Taken taken)
    : _name(std::move(name)), _identity(identity), _taken(std::move(taken)), _plan({_name}) {
  serve(_identity.server(), ConnectionFault::none);
  _port = _server->port();
}

std::string Collector::url() const { return fmt::format("https://localhost:{}/events", _port); }

lab::Answer Collector::answer(const lab::Request& request) {
  Dictionary entry;
  lab::Answer answer = _collectors.events(_name, request, &entry);
  if (const auto fault = _plan.take(_name))
    answer = lab::FaultPlan::spoiled(std::move(answer), *fault);
  const Arrival arrival{now(), answer.status,
                        answer.silent || answer.cutBodyAfter || answer.cutHeadAfter};
  if (const Dictionary* const message = dictionaryAt(entry, "message"))
    if (const Array* const events = arrayAt(*message, "events"))
      for (const Value& event : *events) {
        const std::string* const mark = stringAt(*event.dictionary(), "mark");
        _taken(mark ? *mark : "", arrival);
      }
  return answer;
}

void Collector::serve(const lab::TLSCertificate& certificate, ConnectionFault fault) {
  _server.reset();
  _server = std::make_unique<lab::HTTPServer>(
      [this](const lab::Request& request) { return answer(request); },
      lab::HTTPServer::Options{certificate, _port});
  _server->setConnectionFault(fault);
}

void Collector::plan(Dictionary fault) {
  fault.set("server", _name);
  fault.set("times", -1);
  _plan.set(fault);
}

void Collector::begin(FaultKind kind) {
  switch (kind) {
    case FaultKind::status404: return plan({{"status", 404}});
    case FaultKind::status500: return plan({{"status", 500}});
    case FaultKind::status503: return plan({{"status", 503}});
    case FaultKind::hang: return plan({{"silent", true}});
    case FaultKind::slow: return plan({{"delay", 0.4}});
    case FaultKind::cutAnswer: return plan({{"cutHeadAfter", 9}});
    case FaultKind::refuse: return _server.reset();
    case FaultKind::reset: return serve(_identity.server(), ConnectionFault::resets);
    case FaultKind::hangUp: return serve(_identity.server(), ConnectionFault::hangUp);
    case FaultKind::garbage: return serve(_identity.server(), ConnectionFault::garbage);
    case FaultKind::expired: return serve(_identity.expired(), ConnectionFault::none);
    default: return;
  }
}

void Collector::end(FaultKind kind) {
  _plan.set({{"server", _name}, {"times", 0}});
  const bool keepsServing = kind == FaultKind::status404 || kind == FaultKind::status500 ||
                            kind == FaultKind::status503 || kind == FaultKind::slow ||
                            kind == FaultKind::cutAnswer;
  if (!keepsServing) serve(_identity.server(), ConnectionFault::none);
}

}  // namespace corvid::soak
