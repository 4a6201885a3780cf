#include "tools/lab/HTTPServerConnection.h"

#include <fmt/format.h>

#include <algorithm>
#include <charconv>
#include <condition_variable>
#include <mutex>

#include "base/Text.h"

namespace corvid::lab {
namespace {

constexpr std::size_t headLimit = 64 * 1024;
constexpr std::size_t bodyLimit = 512 * 1024 * 1024;
constexpr std::size_t readSize = 64 * 1024;

// `head` without its last empty line.
std::optional<Request> parseHead(std::string_view head) {
  Request request;
  const std::string_view start = head.substr(0, head.find("\r\n"));
  const auto parts = split(start, ' ');
  if (parts.size() != 3 || parts[2] != "HTTP/1.1") return std::nullopt;
  request.method = parts[0];
  request.target = parts[1];
  for (head.remove_prefix(std::min(head.size(), start.size() + 2)); !head.empty();) {
    const std::string_view line = head.substr(0, head.find("\r\n"));
    const auto colon = line.find(':');
    if (colon == line.npos) return std::nullopt;
    request.headers.emplace_back(line.substr(0, colon), trimmed(line.substr(colon + 1)));
    head.remove_prefix(std::min(head.size(), line.size() + 2));
  }
  return request;
}

bool hasNoBody(int status) { return status == 204 || status == 304; }

std::string headOf(const Answer& answer) {
  std::string head = fmt::format("HTTP/1.1 {} \r\n", answer.status);
  bool hasLength = answer.endless || answer.stream || hasNoBody(answer.status);
  for (const auto& [name, value] : answer.headers) {
    head += fmt::format("{}: {}\r\n", name, value);
    hasLength |= equalsIgnoringCase(name, "Content-Length");
  }
  if (!hasLength) head += fmt::format("Content-Length: {}\r\n", answer.body.size());
  return head += "\r\n";
}

}  // namespace

HTTPServerConnection::HTTPServerConnection(Descriptor socket, Surroundings surroundings)
    : _surroundings(surroundings),
      _stream(std::move(socket)),
      _thread([this](std::stop_token stop) { run(std::move(stop)); }) {}

void HTTPServerConnection::breakOff() {
  _thread.request_stop();
  _stream.breakOff();
}

void HTTPServerConnection::run(std::stop_token stop) {
  _stop = std::move(stop);
  if (!misbehave() && (!_surroundings.tls || _stream.acceptTLS(*_surroundings.tls))) serve();
  _stream.breakOff();
  _over = true;
}

bool HTTPServerConnection::misbehave() {
  switch (_surroundings.fault) {
    case ConnectionFault::none: return false;
    case ConnectionFault::hangUp: return true;
    case ConnectionFault::garbage:
      _stream.write("neither a handshake nor an answer\r\n\r\n");
      return true;
    case ConnectionFault::neverSpeaks: waitForPeerToGo(); return true;
    case ConnectionFault::resets:
      fillBuffer();
      _stream.reset();
      return true;
  }
  return false;
}

void HTTPServerConnection::serve() {
  while (const auto request = readRequest()) {
    ++_surroundings.requests;
    const Answer answer = _surroundings.handler(*request);
    if (!send(answer)) return;
    ++_surroundings.answers;
    const auto wish = request->header("Connection");
    if (answer.hangUp || (wish && equalsIgnoringCase(*wish, "close"))) return _stream.finish();
  }
}

std::optional<Request> HTTPServerConnection::readRequest() {
  std::string head;
  if (!readHead(head)) return std::nullopt;
  auto request = parseHead(head);
  if (!request) refuse(400);
  if (!request || !readBody(*request)) return std::nullopt;
  request->connection = _surroundings.number;
  return request;
}

bool HTTPServerConnection::readHead(std::string& head) {
  std::size_t end;
  while ((end = _buffer.find("\r\n\r\n")) == _buffer.npos) {
    if (_buffer.size() > headLimit) return refuse(431);
    if (!fillBuffer()) return false;
  }
  head = _buffer.substr(0, end);
  _buffer.erase(0, end + 4);
  return true;
}

bool HTTPServerConnection::readBody(Request& request) {
  if (request.header("Transfer-Encoding")) return refuse(411);
  if (request.headerCount("Content-Length") > 1) return refuse(400);
  std::size_t length = 0;
  if (const auto text = request.header("Content-Length")) {
    const auto [end, error] = std::from_chars(text->data(), text->data() + text->size(), length);
    if (error != std::errc() || end != text->data() + text->size() || length > bodyLimit)
      return refuse(length > bodyLimit ? 413 : 400);
  }
  while (_buffer.size() < length)
    if (!fillBuffer()) return false;
  request.body = _buffer.substr(0, length);
  _buffer.erase(0, length);
  return true;
}

bool HTTPServerConnection::fillBuffer() {
  const std::size_t used = _buffer.size();
  _buffer.resize(used + readSize);
  const std::size_t count = _stream.read(_buffer.data() + used, readSize);
  _buffer.resize(used + count);
  return count != 0;
}

bool HTTPServerConnection::refuse(int status) {
  send({.status = status, .headers = {{"Connection", "close"}}});
  _stream.finish();
  return false;
}

bool HTTPServerConnection::send(const Answer& answer) {
  if (!pause(answer.delay)) return false;
  if (answer.silent) {
    waitForPeerToGo();
    return false;
  }
  if (answer.raw) {
    _stream.write(*answer.raw);
    return false;
  }
  std::string head = headOf(answer);
  if (answer.cutHeadAfter) {
    _stream.write(std::string_view(head).substr(0, *answer.cutHeadAfter));
    return false;
  }
  if (answer.stream) {
    if (_stream.write(head))
      answer.stream([this](std::string_view piece) { return _stream.write(piece); }, _stop);
    _stream.finish();
    return false;
  }
  const bool isPlain = !answer.drip && !answer.cutBodyAfter && !answer.endless;
  if (isPlain) return _stream.write(head += answer.body);
  return _stream.write(head) && sendBody(answer) && !answer.cutBodyAfter;
}

bool HTTPServerConnection::sendBody(const Answer& answer) {
  std::string_view rest = answer.body;
  if (answer.endless) {
    const std::string filler = answer.body.empty() ? std::string(readSize, 'x') : answer.body;
    while (_stream.write(filler)) continue;
    return false;
  }
  if (answer.cutBodyAfter) rest = rest.substr(0, *answer.cutBodyAfter);
  if (!answer.drip) return _stream.write(rest);
  while (!rest.empty()) {
    const std::string_view piece = rest.substr(0, answer.drip->pieceSize);
    if (!pause(answer.drip->pause) || !_stream.write(piece)) return false;
    rest.remove_prefix(piece.size());
  }
  return true;
}

bool HTTPServerConnection::pause(std::chrono::milliseconds duration) {
  if (duration.count() <= 0) return true;
  std::mutex mutex;
  std::condition_variable_any never;
  std::unique_lock lock(mutex);
  never.wait_for(lock, _stop, duration, [] { return false; });
  return !_stop.stop_requested();
}

void HTTPServerConnection::waitForPeerToGo() {
  _buffer.clear();
  while (fillBuffer()) _buffer.clear();
}

}  // namespace corvid::lab
