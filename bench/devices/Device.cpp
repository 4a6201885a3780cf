#include "bench/devices/Device.h"

#include <algorithm>
#include <optional>
#include <utility>

namespace corvid::bench {

namespace {

using std::chrono::microseconds;

// A gateway holds a post for so long that its log has time to come back.
constexpr std::chrono::seconds patience{60};
constexpr microseconds afterFailure{500'000};
// A slow link.
constexpr std::size_t pieceBytes = 512;
constexpr microseconds betweenPieces{100'000};

// 127.1.0.1 and what follows, so that each is a client of its own to a gateway.
std::optional<boost::asio::ip::address_v4> addressOf(const FleetRun& run, std::size_t number) {
  const auto& collector = run.collector.address();
  if (run.setup.sharesAddress || !collector.is_v4() || !collector.is_loopback())
    return std::nullopt;
  const auto at = static_cast<std::uint32_t>(number);
  constexpr std::uint32_t first = (127u << 24) + (1u << 16);
  return boost::asio::ip::address_v4(first + at / 250 * 256 + at % 250 + 1);
}

}  // namespace

Device::Device(FleetRun& run, std::size_t number, std::function<void()> finished)
    : _run(run),
      _number(number),
      _finished(std::move(finished)),
      _random(static_cast<std::uint64_t>(run.setup.seed) * 1'000'003 + number),
      _isSlow(happens(run.setup.slow)),
      _posts(run.tally.run, number, static_cast<int>(run.setup.events), run.target, run.authority),
      _connection(run, addressOf(run, number)),
      _timer(run.loop) {}

bool Device::happens(std::int64_t ofAHundred) {
  return static_cast<std::int64_t>(_random() % 100) < ofAHundred;
}

microseconds Device::within(microseconds time) {
  return microseconds(_random() % static_cast<std::uint64_t>(time.count() + 1));
}

microseconds Device::meanPause() const {
  const FleetSetup& setup = _run.setup;
  return microseconds(setup.rate == 0 ? 0 : setup.devices * 1'000'000 / setup.rate);
}

template <class Then>
void Device::sleepUntil(Steady::time_point time, Then then) {
  _timer.expires_at(std::min(time, _run.end));
  _timer.async_wait([self = shared_from_this(), then](const auto&) { then(*self); });
}

void Device::connect(microseconds time, std::function<void()> done) {
  sleepUntil(Steady::now() + within(time), [done = std::move(done)](Device& device) {
    device._connection.open(patience, [self = device.shared_from_this(), done](auto error) {
      if (error) self->_connection.close();
      done();
    });
  });
}

void Device::start() {
  sleepUntil(Steady::now() + within(meanPause()), std::mem_fn(&Device::beginPost));
}

void Device::pause() {
  const microseconds mean = meanPause();
  if (mean.count() == 0) return beginPost();
  sleepUntil(Steady::now() + mean / 2 + within(mean), std::mem_fn(&Device::beginPost));
}

void Device::beginPost() {
  if (_run.isOver()) {
    _connection.close();
    return _finished();
  }
  _post = happens(_run.setup.wrong) ? _posts.nextWrong(_random) : _posts.next();
  _cut = !happens(_run.setup.dropped) ? Cut::no
         : happens(50)                ? Cut::insideTheBody
                                      : Cut::beforeTheAnswer;
  _isAgain = false;
  attempt();
}

void Device::attempt() {
  _isReused = _connection.isOpen();
  if (_isReused) return send();
  _connection.open(patience, [self = shared_from_this()](auto error) {
    if (error) return self->failed(error);
    self->send();
  });
}

void Device::send() {
  _begun = Steady::now();
  _connection.limit(patience);
  if (_isSlow) return sendSlowly(0);
  const std::string_view whole = _post.request;
  const std::string_view part =
      _cut == Cut::insideTheBody ? whole.substr(0, whole.size() - 20) : whole;
  _connection.write(part, [self = shared_from_this()](auto error) { self->sent(error); });
}

void Device::sendSlowly(std::size_t from) {
  const std::string_view piece = std::string_view(_post.request).substr(from, pieceBytes);
  _connection.write(piece, [self = shared_from_this(), next = from + piece.size()](auto error) {
    const bool isCut = self->_cut == Cut::insideTheBody;
    if (error || isCut || next == self->_post.request.size()) return self->sent(error);
    self->_timer.expires_after(betweenPieces);
    self->_timer.async_wait([self, next](const auto&) { self->sendSlowly(next); });
  });
}

void Device::sent(DeviceConnection::Error error) {
  if (error) return failed(error);
  if (_cut == Cut::no)
    return _connection.readAnswer([self = shared_from_this()](auto failure, auto answer) {
      self->answered(failure, answer);
    });
  _run.tally.cut({_number, _post.first});
  _connection.close();
  pause();
}

void Device::answered(DeviceConnection::Error error, DeviceConnection::Answer answer) {
  if (error) return failed(error);
  const bool isTaken = answer.status == 200;
  Tally& tally = _run.tally;
  if (_isAgain) {
    ++tally.sentAgain;
  } else {
    tally.answered({_number, _post.first}, _post.isWrong, answer.status);
    if (isTaken && !_isSlow)
      tally.latencyMillis.push_back(
          std::chrono::duration<float, std::milli>(Steady::now() - _begun).count());
  }
  if (answer.closes) _connection.close();
  if (isTaken && !_isAgain && happens(_run.setup.again)) {
    _isAgain = true;
    return attempt();
  }
  pause();
}

void Device::failed(DeviceConnection::Error error) {
  _connection.close();
  // The collector may have closed a connection on which nothing happened, as HTTP clients know.
  if (_isReused) return attempt();
  if (!_isAgain) _run.tally.failed({_number, _post.first}, error.message());
  sleepUntil(Steady::now() + afterFailure, std::mem_fn(&Device::beginPost));
}

}  // namespace corvid::bench
