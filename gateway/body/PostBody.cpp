#include "gateway/body/PostBody.h"

#include <fmt/format.h>

#include <algorithm>
#include <span>

#include "gateway/Limits.h"
#include "gateway/body/LogData.h"

namespace corvid::fleet {

namespace {

std::string bytes(std::size_t count) { return fmt::format("{} bytes", count); }

}  // namespace

PostBody::PostBody(Request request, Gunzips& gunzips, Budget& budget, Holding& holding)
    : _request(std::move(request)),
      _gunzips(gunzips),
      _holding(holding),
      _charge(budget, _request.share),
      _gunzip(nullptr, {&gunzips}) {
  if (_request.kind == Kind::events) _json.emplace();
}

Exchange::Wish PostBody::take(std::string_view piece) {
  _sent += piece.size();
  if (_sent > limits::sentBytes) return refuse(Rule::sentTooLarge, bytes(limits::sentBytes));
  if (_request.isGzip) {
    if (!_gunzip && !beginUnpacking()) return refuseForMemory();
    const Wish wish = unpack(piece);
    if (wish == Wish::again) _packed = piece;
    return wish;
  }
  const std::size_t checked = _body.size();
  if (!makeRoom(std::max(checked + piece.size(), std::min(_request.length, turnBytes))))
    return refuseForMemory();
  _body += piece;
  return check(checked, false);
}

Exchange::Wish PostBody::work() {
  std::string_view packed = _packed;
  const Wish wish = unpack(packed);
  _packed.erase(0, _packed.size() - packed.size());
  return wish;
}

bool PostBody::beginUnpacking() {
  if (!charge(0)) return false;
  _gunzip = _gunzips.lend();
  return true;
}

Exchange::Wish PostBody::unpack(std::string_view& packed) {
  // As much as such texts are usually packed, and some more.
  constexpr std::size_t usualRatio = 12;
  constexpr std::size_t leastRoom = 4096;
  std::size_t turn = turnBytes;
  for (;;) {
    if (_gunzip->state() != Gunzip::State::goesOn)
      return packed.empty() ? Wish::more : refuse(Rule::damagedGzip);
    const std::size_t checked = _body.size();
    const std::size_t room =
        std::clamp((std::max(packed.size(), _request.length) * usualRatio), leastRoom, turn);
    if (!makeRoom(checked + room)) return refuseForMemory();
    _body.resize(checked + room);
    const std::size_t made = _gunzip->unpack(packed, std::span(_body).subspan(checked));
    _body.resize(checked + made);
    if (_gunzip->state() == Gunzip::State::damaged) return refuse(Rule::damagedGzip);
    if (_body.size() > limits::unpackedBytes)
      return refuse(Rule::unpackedTooLarge, bytes(limits::unpackedBytes));
    if (const Wish wish = check(checked, false); wish == Wish::refused) return wish;
    // What fills the room may have more to give without another byte.
    if (made < room && packed.empty()) return Wish::more;
    if (made >= turn - std::min(turn - 1, leastRoom)) return Wish::again;
    turn -= made;
  }
}

Exchange::Wish PostBody::check(std::size_t checked, bool isWhole) {
  _digest.add(std::string_view(_body).substr(checked));
  if (!_json) return Wish::more;
  if (const auto refusal = _json->advance(_body, isWhole))
    return refuse(refusal->rule, refusal->detail);
  return charge(_body.capacity()) ? Wish::more : refuseForMemory();
}

// Ahead of the growth, which doubles what there is.
bool PostBody::makeRoom(std::size_t size) {
  if (size <= _body.capacity()) return true;
  const std::size_t capacity = std::max(size, 2 * _body.capacity());
  if (!charge(capacity)) return false;
  _body.reserve(capacity);
  return true;
}

bool PostBody::charge(std::size_t capacity) {
  return _charge.raiseTo(capacity + (_request.isGzip ? gunzipBytes : 0) +
                         (_json ? _json->bytes() : 0));
}

void PostBody::finish(Done done) {
  if (auto refusal = end()) return done({.refusal = std::move(refusal)});
  LogMessage message = this->message();
  Verdict stored{.events = _json ? _json->events() : 0};
  if (_request.kind == Kind::logData) stored.body = fmt::format("logs/{}\n", message.id);
  _gunzip.reset();
  _json.reset();
  _holding.hold(std::move(message), std::move(_charge),
                std::chrono::steady_clock::now() + _request.hold,
                [done = std::move(done), stored = std::move(stored)](std::optional<Rule> rule) {
                  if (!rule) return done(stored);
                  done({.refusal = Refusal{*rule}});
                });
}

std::optional<Refusal> PostBody::end() {
  if (_request.isGzip && (!_gunzip || _gunzip->state() != Gunzip::State::whole))
    return Refusal{Rule::damagedGzip};
  if (_request.kind == Kind::logData) {
    if (isLogData(_body)) return std::nullopt;
    return Refusal{Rule::noLogData};
  }
  return check(_body.size(), true) == Wish::refused ? refusal() : std::nullopt;
}

LogMessage PostBody::message() {
  _digest.add(_request.client);
  return {.stream = _request.kind == Kind::events ? "events" : "logs",
          .id = _digest.hexadecimal(),
          .headers = std::move(_request.headers),
          .body = std::move(_body)};
}

}  // namespace corvid::fleet
