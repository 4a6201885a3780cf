#include "bench/devices/DeviceConnection.h"

#include <algorithm>
#include <boost/asio/post.hpp>
#include <boost/asio/read.hpp>
#include <boost/asio/read_until.hpp>
#include <boost/asio/write.hpp>
#include <utility>

#include "base/Reading.h"
#include "base/Text.h"

namespace corvid::bench {

namespace {

namespace asio = boost::asio;

constexpr std::size_t mostHead = 16384;
constexpr std::string_view headEnd = "\r\n\r\n";

struct Head {
  DeviceConnection::Answer answer;
  std::size_t bodyBytes = 0;
};

// Nothing where it is no answer whose length is said.
std::optional<Head> parse(std::string_view text) {
  constexpr std::string_view version = "HTTP/1.1 ";
  const auto status = numberFrom<int>(text.substr(std::min(version.size(), text.size()), 3));
  if (!text.starts_with(version) || !status) return std::nullopt;
  Head head{{*status, false}};
  for (const std::string_view line : split(text, '\n')) {
    const std::size_t colon = line.find(':');
    if (colon == line.npos) continue;
    const std::string name = lowerCased(line.substr(0, colon));
    const std::string_view value = trimmed(line.substr(colon + 1));
    if (name == "content-length") {
      const auto length = numberFrom<std::size_t>(value);
      if (!length) return std::nullopt;
      head.bodyBytes = *length;
    }
    if (name == "transfer-encoding") return std::nullopt;
    if (name == "connection") head.answer.closes = lowerCased(value) == "close";
  }
  return head;
}

}  // namespace

DeviceConnection::DeviceConnection(FleetRun& run, std::optional<asio::ip::address_v4> from)
    : _run(run), _from(from) {}

void DeviceConnection::open(std::chrono::seconds time, Done done) {
  close();
  _read.clear();
  if (_run.usesTLS)
    _encrypted = std::make_unique<Encrypted>(_run.loop, _run.tls);
  else
    _plain = std::make_unique<Plain>(_run.loop);
  Error error;
  auto& socket = stream().socket();
  socket.open(_run.collector.protocol(), error);
  if (!error && _from) socket.bind({*_from, 0}, error);
  if (error) return asio::post(_run.loop, [done = std::move(done), error] { done(error); });
  limit(time);
  stream().async_connect(_run.collector, [this, done = std::move(done)](Error failure) {
    Error ignored;
    if (isOpen()) stream().socket().set_option(asio::ip::tcp::no_delay(true), ignored);
    if (failure || !_encrypted) return done(failure);
    shakeHands(done);
  });
}

void DeviceConnection::shakeHands(Done done) {
  SSL* const session = _encrypted->native_handle();
  SSL_set_tlsext_host_name(session, _run.host.c_str());
  SSL_set1_host(session, _run.host.c_str());
  _encrypted->async_handshake(asio::ssl::stream_base::client, std::move(done));
}

void DeviceConnection::write(std::string_view bytes, Done done) {
  const auto written = [done = std::move(done)](Error error, std::size_t) { done(error); };
  const asio::const_buffer buffer(bytes.data(), bytes.size());
  if (_encrypted)
    asio::async_write(*_encrypted, buffer, written);
  else
    asio::async_write(*_plain, buffer, written);
}

void DeviceConnection::readAnswer(Answered answered) {
  const auto taken = [this, answered = std::move(answered)](Error error, std::size_t size) {
    if (error) return answered(error, {});
    readRest(size, answered);
  };
  const auto room = asio::dynamic_buffer(_read, mostHead);
  if (_encrypted)
    asio::async_read_until(*_encrypted, room, headEnd, taken);
  else
    asio::async_read_until(*_plain, room, headEnd, taken);
}

void DeviceConnection::readRest(std::size_t headBytes, Answered answered) {
  const auto head = parse(std::string_view(_read).substr(0, headBytes));
  if (!head) return answered(asio::error::invalid_argument, {});
  const std::size_t whole = headBytes + head->bodyBytes;
  const auto taken = [this, whole, answer = head->answer, answered = std::move(answered)](
                         Error error, std::size_t) {
    if (!error) _read.erase(0, whole);
    answered(error, answer);
  };
  if (_read.size() >= whole) return taken({}, 0);
  const auto room = asio::dynamic_buffer(_read);
  const auto rest = asio::transfer_exactly(whole - _read.size());
  if (_encrypted)
    asio::async_read(*_encrypted, room, rest, taken);
  else
    asio::async_read(*_plain, room, rest, taken);
}

void DeviceConnection::close() {
  // Handlers that are under way still use the streams' memory, but not the objects.
  _encrypted.reset();
  _plain.reset();
}

void DeviceConnection::limit(std::chrono::seconds time) {
  if (isOpen()) stream().expires_after(time);
}

}  // namespace corvid::bench
