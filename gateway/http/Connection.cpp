#include "gateway/http/Connection.h"

#include <time.h>

#include <algorithm>
#include <boost/asio/post.hpp>
#include <utility>

#include "gateway/Limits.h"
#include "gateway/http/Routing.h"

namespace corvid::fleet {

namespace {

using Clock = std::chrono::steady_clock;

// For a peer to take an answer, and to stop sending what nobody reads.
constexpr std::chrono::seconds writeTime{20};
constexpr std::chrono::seconds lingerTime{2};
constexpr std::size_t lingerBytes = 2 * limits::sentBytes;

// Of this thread: what other programs take of the processor is not the client's.
std::chrono::nanoseconds processorTime() {
  timespec time{};
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &time);
  return std::chrono::seconds(time.tv_sec) + std::chrono::nanoseconds(time.tv_nsec);
}

constexpr std::string_view goAhead = "HTTP/1.1 100 Continue\r\n\r\n";

}  // namespace

Connection::Connection(Worker& worker, Transport transport, Role role,
                       std::shared_ptr<Client> client)
    : _worker(worker),
      _transport(std::move(transport)),
      _role(role),
      _ownClient(std::move(client)) {
  _worker.shared().ledger.connectionAccepted();
}

Connection::~Connection() {
  if (_client) _client->endExchange();
  if (_ownClient) _ownClient->removeConnection();
  _worker.shared().ledger.connectionClosed();
}

void Connection::start(Worker::Connections::iterator place) {
  _place = place;
  // A handshake has no longer than a head.
  const Settings& settings = _worker.inForce().settings;
  _deadline = Clock::now() + (_worker.inForce().tls ? settings.headTime : settings.idleTime);
  waitForReadable();
}

void Connection::waitForReadable() {
  if (std::exchange(_isWaiting, true)) return;
  _transport.socket().async_wait(boost::asio::ip::tcp::socket::wait_read,
                                 [self = shared_from_this()](const auto&) { self->ready(); });
}

void Connection::waitForWritable() {
  if (std::exchange(_isWaiting, true)) return;
  _transport.socket().async_wait(boost::asio::ip::tcp::socket::wait_write,
                                 [self = shared_from_this()](const auto&) { self->ready(); });
}

void Connection::ready() {
  _isWaiting = false;
  switch (_phase) {
    case Phase::head:
    case Phase::body:
    case Phase::lingering: return read();
    case Phase::answering: return write();
    default: return;
  }
}

void Connection::read() {
  const Transport::Moved moved = _transport.read(_worker.buffer());
  switch (moved.need) {
    case Transport::Need::readable: return waitForReadable();
    case Transport::Need::writable: return waitForWritable();
    case Transport::Need::closed: return peerHasGone();
    case Transport::Need::none: break;
  }
  _bytes += moved.bytes;
  _worker.shared().ledger.bytesRead(moved.bytes);
  if (_phase == Phase::lingering) return linger({_worker.buffer().data(), moved.bytes});
  feed({_worker.buffer().data(), moved.bytes});
}

void Connection::linger(std::string_view discarded) {
  if (_bytes - discarded.size() > lingerBytes) return close();
  _transport.hasBuffered() ? read() : waitForReadable();
}

void Connection::peerHasGone() {
  if (_isReceived) {
    _isReceived = false;
    _worker.shared().ledger.settled(Rule::cutOff);
  }
  close();
}

void Connection::feed(std::string_view input) {
  const auto began = processorTime();
  const std::string before = std::exchange(_pending, {});
  if (before.empty())
    consume(input);
  else
    consume(std::string(before).append(input));
  _worked += processorTime() - began;
}

void Connection::consume(std::string_view input) {
  if (_phase == Phase::head) {
    if (!_parser) {
      _parser = std::make_unique<RequestParser>(_worker.inForce().settings.clientHeader);
      _deadline = Clock::now() + _worker.inForce().settings.headTime;
    }
    const bool isWhole = _parser->readHead(input);
    _pending = input;
    if (_parser->fault()) {
      _isReceived = true;
      _worker.shared().ledger.received(Route::none);
      return refuse(*_parser->fault());
    }
    if (!isWhole) return _transport.hasBuffered() ? read() : waitForReadable();
    if (!begin()) return;
    // Of what was given nothing is kept twice.
    _pending.clear();
  }
  if (_phase == Phase::body) continueBody(input);
}

bool Connection::begin() {
  const RequestHead& head = _parser->head();
  if (auto monitors = monitorsAnswer(head, _role == Role::monitors, _worker)) {
    answer(std::move(*monitors));
    return false;
  }
  _route = _role == Role::devices ? routeOf(head) : Route::none;
  _isReceived = true;
  _worker.shared().ledger.received(_route);
  auto rule = faultOf(head, _route, _worker.shared());
  if (!rule) rule = admit();
  if (rule) {
    refuse(*rule);
    return false;
  }
  if (mustWaitOutside()) {
    _phase = Phase::parked;
    _deadline = Clock::now() + _worker.shared().hold;
    return false;
  }
  beginBody(_worker.shared().hold);
  return true;
}

bool Connection::mustWaitOutside() const {
  return _worker.shared().budget.isTight(_client->memory().used() == 0);
}

// To the client's share.
std::optional<Rule> Connection::admit() {
  const InForce& inForce = _worker.inForce();
  std::shared_ptr<Client> client = _ownClient;
  if (!client) {
    boost::system::error_code error;
    const auto peer = plainAddress(_transport.socket().remote_endpoint(error).address());
    const auto named = addressFrom(_parser->head().clientAddress);
    client = _worker.shared().clients.find(clientKey(named.value_or(peer)));
  }
  const auto rule = client->beginExchange(inForce.settings, Clock::now());
  if (!rule) _client = std::move(client);
  return rule;
}

void Connection::beginBody(Time::duration hold) {
  _phase = Phase::body;
  _heard = Clock::now();
  _deadline = _heard + _worker.inForce().settings.bodyTime;
  RequestHead& head = _parser->head();
  if (head.expectsContinue) _transport.write(goAhead);
  _exchange = exchangeFor(std::move(head), _route, _worker, hold, {_client, &_client->memory()},
                          [weak = weak_from_this()] {
                            const auto self = weak.lock();
                            if (self && self->_phase == Phase::paused) self->goOn();
                          });
}

void Connection::continueBody(std::string_view input) {
  auto wish = Exchange::Wish::more;
  _parser->readBody(input, [&](std::string_view piece) {
    wish = _exchange->take(piece);
    return wish == Exchange::Wish::more;
  });
  _pending = input;
  if (_parser->fault()) return refuse(*_parser->fault());
  follow(wish);
}

void Connection::follow(Exchange::Wish wish) {
  switch (wish) {
    case Exchange::Wish::refused: return settle({.refusal = _exchange->refusal()});
    case Exchange::Wish::pause: _phase = Phase::paused; return;
    case Exchange::Wish::again:
      _phase = Phase::turn;
      return boost::asio::post(_worker.loop(), [self = shared_from_this()] {
        if (self->_phase == Phase::turn) self->goOn();
      });
    case Exchange::Wish::more: break;
  }
  _phase = Phase::body;
  _heard = Clock::now();
  if (_parser->isWhole()) return finish();
  _transport.hasBuffered() ? read() : waitForReadable();
}

// After a turn of others, or a pause.
void Connection::goOn() {
  const auto began = processorTime();
  const auto wish = _exchange->work();
  _worked += processorTime() - began;
  if (wish != Exchange::Wish::more || _parser->isWhole()) return follow(wish);
  _phase = Phase::body;
  feed({});
}

void Connection::finish() {
  _phase = Phase::settling;
  _exchange->finish([self = shared_from_this()](Verdict verdict) { self->settle(verdict); });
}

void Connection::settle(const Verdict& verdict) {
  Shared& shared = _worker.shared();
  if (std::exchange(_isReceived, false)) {
    if (verdict.refusal)
      shared.ledger.settled(verdict.refusal->rule);
    else
      shared.ledger.acknowledged(_route, verdict.events);
  }
  Answer line = answerTo(verdict, shared.whenFull);
  if (line.status == 405) line.allow = "POST";
  answer(std::move(line));
}

void Connection::answer(Answer answer) {
  charge();
  _closes = _worker.isStopping() || !_parser->isWhole() || !_parser->head().keepsAlive;
  _out = wireForm(answer, !_closes);
  _written = 0;
  _phase = Phase::answering;
  _deadline = Clock::now() + writeTime;
  write();
}

void Connection::charge() {
  if (!_client) return;
  _client->spend(_worker.inForce().settings, Clock::now(), _bytes, _worked);
  std::exchange(_client, nullptr)->endExchange();
}

void Connection::write() {
  while (_written < _out.size()) {
    const Transport::Moved moved = _transport.write(std::string_view(_out).substr(_written));
    switch (moved.need) {
      case Transport::Need::readable: return waitForReadable();
      case Transport::Need::writable: return waitForWritable();
      case Transport::Need::closed: return close();
      case Transport::Need::none: _written += moved.bytes;
    }
  }
  answered();
}

void Connection::answered() {
  // Who called may still be at work in the exchange.
  if (!_closes)
    return boost::asio::post(_worker.loop(), [self = shared_from_this()] { self->next(); });
  _transport.endWriting();
  _phase = Phase::lingering;
  _deadline = Clock::now() + lingerTime;
  _bytes = 0;
  boost::asio::post(_worker.loop(), [self = shared_from_this()] {
    self->_exchange.reset();
    if (self->_phase == Phase::lingering) self->waitForReadable();
  });
}

void Connection::next() {
  if (_phase != Phase::answering) return;
  _exchange.reset();
  _parser.reset();
  std::string().swap(_out);
  _bytes = 0;
  _worked = {};
  _phase = Phase::head;
  _deadline = Clock::now() + _worker.inForce().settings.idleTime;
  if (!_pending.empty()) return feed({});
  if (_worker.isStopping()) return close();
  std::string().swap(_pending);
  _transport.hasBuffered() ? read() : waitForReadable();
}

void Connection::stop() {
  if (_phase == Phase::head && !_parser) close();
}

void Connection::close() {
  if (std::exchange(_phase, Phase::over) == Phase::over) return;
  const auto self = shared_from_this();
  charge();
  _transport.close();
  _worker.forget(_place);
}

void Connection::look(Time now) {
  const auto self = shared_from_this();
  if (_phase == Phase::parked && !mustWaitOutside()) {
    beginBody(std::max(_deadline - now, Time::duration::zero()));
    return feed({});
  }
  if (_phase == Phase::body ? !bodyIsLate(now) : now < _deadline) return;
  switch (_phase) {
    case Phase::head:
      if (!_parser) return close();
      _isReceived = true;
      _worker.shared().ledger.received(Route::none);
      return refuse(Rule::slowHead);
    case Phase::parked: return refuse(Rule::memoryFull);
    case Phase::body: return refuse(Rule::slowBody);
    case Phase::answering:
    case Phase::lingering: return close();
    default: return;
  }
}

bool Connection::bodyIsLate(Time now) const {
  const Settings& settings = _worker.inForce().settings;
  return now >= _deadline + std::chrono::seconds(_bytes / settings.bodyRate) ||
         now >= _heard + settings.bodyTime;
}

}  // namespace corvid::fleet
