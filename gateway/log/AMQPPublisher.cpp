#include "gateway/log/AMQPPublisher.h"

#include <poll.h>
#include <sys/socket.h>

#include <array>
#include <stdexcept>
#include <vector>

#include "base/Log.h"

namespace corvid::fleet {

namespace {

using std::chrono::milliseconds;

// Where a node died that led a stream, the others choose a leader first; what reaches them before
// that may wait for the dead one.
constexpr milliseconds firstBackOff{500};
constexpr milliseconds longestBackOff{1000};
// The longest that the worker sleeps, so that it keeps up the heartbeats.
constexpr milliseconds longestWait{250};
// A message that is older and not confirmed makes the log count as one that does not answer.
constexpr std::chrono::seconds slowest{2};
// Doubled each time that it did not help, so that a log with much to do is not given more.
constexpr std::chrono::seconds firstStall{3};
constexpr std::chrono::seconds longestStall{8};
// Of one message, while others are confirmed.
constexpr std::chrono::seconds longestUnconfirmed{10};

void sleepFor(const Wakeup& wakeup, milliseconds time, int socket = -1) {
  std::array<pollfd, 2> waiting{{{wakeup.descriptor(), POLLIN, 0}, {socket, POLLIN, 0}}};
  poll(waiting.data(), socket < 0 ? 1 : 2, static_cast<int>(time.count()));
  wakeup.drain();
}

// A node ends the connection over what it does not take, and with it all that is under way.
bool canBeSent(const LogMessage& message) {
  constexpr std::size_t shortText = 255;
  constexpr std::size_t mostHeaderBytes = 64 << 10;  // all of them stand in one frame
  constexpr std::size_t mostBody = 128 << 20;        // what a node takes unless told otherwise
  std::size_t bytes = 0;
  for (const auto& [name, value] : message.headers) {
    if (name.size() > shortText) return false;
    bytes += name.size() + value.size() + 8;
  }
  return bytes <= mostHeaderBytes && message.id.size() <= shortText &&
         message.stream.size() <= shortText && message.body.size() <= mostBody;
}

void publishOn(AMQPConnection& connection, const LogMessage& message) {
  std::vector<amqp_table_entry_t> entries(message.headers.size());
  for (std::size_t at = 0; at < entries.size(); ++at) {
    entries[at].key = bytesOf(message.headers[at].first);
    entries[at].value.kind = AMQP_FIELD_KIND_UTF8;
    entries[at].value.value.bytes = bytesOf(message.headers[at].second);
  }
  constexpr std::uint8_t persistent = 2;
  amqp_basic_properties_t properties{};
  properties._flags =
      AMQP_BASIC_DELIVERY_MODE_FLAG | AMQP_BASIC_MESSAGE_ID_FLAG | AMQP_BASIC_HEADERS_FLAG;
  properties.delivery_mode = persistent;
  properties.message_id = bytesOf(message.id);
  properties.headers = {static_cast<int>(entries.size()), entries.data()};
  // Mandatory: a queue that is gone is told, not confirmed.
  constexpr amqp_boolean_t isMandatory = 1, isImmediate = 0;
  AMQPConnection::check(amqp_basic_publish(connection.state(), AMQPConnection::channel,
                                           amqp_empty_bytes, bytesOf(message.stream), isMandatory,
                                           isImmediate, &properties, bytesOf(message.body)),
                        "publishing");
}

}  // namespace

// The socket of a connection, for its length, to whoever ends the publisher.
class AMQPPublisher::Shown {
 public:
  Shown(AMQPPublisher& publisher, int socket) : _publisher(publisher) { _publisher.show(socket); }
  ~Shown() { _publisher.show(-1); }
  Shown(const Shown&) = delete;
  Shown& operator=(const Shown&) = delete;

 private:
  AMQPPublisher& _publisher;
};

AMQPPublisher::AMQPPublisher(AMQPAddress address, const Options& options)
    : _address(std::move(address)),
      _options(options),
      _unconfirmed(options.patience, options.mostBytes),
      _stall(firstStall),
      _backOff(firstBackOff),
      _expiry([this](const std::stop_token& stop) { expireAll(stop); }),
      _worker([this](const std::stop_token& stop) { run(stop); }) {}

AMQPPublisher::~AMQPPublisher() {
  _worker.request_stop();
  _wakeup.wake();
  {
    // It may wait for a node that takes nothing.
    const MutexLock lock(_socketMutex);
    if (_socket >= 0) shutdown(_socket, SHUT_RDWR);
  }
  _worker.join();
  _expiry.request_stop();
  _expiryChanged.notify_all();
  _expiry.join();
  _unconfirmed.expire(Unconfirmed::Clock::time_point::max());
}

void AMQPPublisher::publish(LogMessage message, Completion completion) {
  if (!canBeSent(message))
    _unconfirmed.answerLater(std::move(completion), Published::refused);
  else if (_unconfirmed.add(std::move(message), std::move(completion)))
    return _wakeup.wake();
  _expiryChanged.notify_all();
}

bool AMQPPublisher::isReady() const {
  if (!_isConnected || _isBlocked) return false;
  const auto since = _unconfirmed.waitingSince();
  return !since || Unconfirmed::Clock::now() - *since < slowest;
}

void AMQPPublisher::expireAll(const std::stop_token& stop) {
  while (!stop.stop_requested()) {
    _unconfirmed.expire(Unconfirmed::Clock::now());
    const MutexLock lock(_expiryMutex);
    _expiryChanged.wait_for(_expiryMutex, longestWait);
  }
}

void AMQPPublisher::run(const std::stop_token& stop) {
  std::size_t refusals = 0;  // in a row
  for (std::size_t node = 0; !stop.stop_requested(); node = (node + 1) % _address.nodes.size()) {
    const AMQPAddress::Node& named = _address.nodes[node];
    try {
      connectTo(named, stop);
    } catch (const std::exception& error) {
      if (!stop.stop_requested())
        logWarning("log: {}:{}: {}", named.host, named.port, error.what());
    }
    const bool wasConnected = _isConnected.exchange(false);
    _isBlocked = false;
    refusals = wasConnected ? 0 : refusals + 1;
    // Of nodes that do not run, each is asked at once, so that the one that runs again is found.
    if (refusals % _address.nodes.size() == 0) backOff(stop);
  }
}

void AMQPPublisher::backOff(const std::stop_token& stop) {
  // Each message that is published wakes it, too.
  const auto end = Unconfirmed::Clock::now() + _backOff;
  for (auto now = Unconfirmed::Clock::now(); now < end && !stop.stop_requested();
       now = Unconfirmed::Clock::now())
    sleepFor(_wakeup, std::chrono::ceil<milliseconds>(end - now));
  _backOff = std::min(2 * _backOff, longestBackOff);
}

void AMQPPublisher::connectTo(const AMQPAddress::Node& node, const std::stop_token& stop) {
  AMQPConnection connection(node, _options.connecting);
  const Shown shown(*this, connection.socket());
  if (stop.stop_requested()) return;
  connection.logIn(_address, _options.heartbeat);
  amqp_confirm_select(connection.state(), AMQPConnection::channel);
  AMQPConnection::check(amqp_get_rpc_reply(connection.state()), "asking for confirmations");
  _unconfirmed.beginConnection();
  _hasReturned = false;
  _confirmed = Unconfirmed::Clock::now();
  _isConnected = true;
  logInfo("log: publishing through {}:{}", node.host, node.port);
  serve(connection, stop);
}

void AMQPPublisher::show(int socket) {
  const MutexLock lock(_socketMutex);
  _socket = socket;
}

void AMQPPublisher::serve(AMQPConnection& connection, const std::stop_token& stop) {
  std::set<std::string> declared;
  while (!stop.stop_requested()) {
    sendWaiting(connection, declared);
    receive(connection);
    checkStall();
    if (!amqp_frames_enqueued(connection.state()) && !amqp_data_in_buffer(connection.state()))
      sleepFor(_wakeup, longestWait, connection.socket());
  }
}

void AMQPPublisher::sendWaiting(AMQPConnection& connection, std::set<std::string>& declared) {
  // Confirmations are looked at in between.
  for (int count = 0; count < 64; ++count) {
    const auto message = _unconfirmed.takeUnsent();
    if (!message) return;
    if (!declared.contains(message->stream)) {
      connection.declareStream(message->stream);
      declared.insert(message->stream);
      _confirmed = Unconfirmed::Clock::now();  // that takes its time
    }
    publishOn(connection, *message);
  }
  _wakeup.wake();
}

void AMQPPublisher::receive(AMQPConnection& connection) {
  const timeval now{0, 0};
  for (;;) {
    amqp_maybe_release_buffers(connection.state());
    amqp_frame_t frame;
    const int status = amqp_simple_wait_frame_noblock(connection.state(), &frame, &now);
    if (status == AMQP_STATUS_TIMEOUT) return;
    AMQPConnection::check(status, "waiting for confirmations");
    take(connection, frame);
  }
}

void AMQPPublisher::take(AMQPConnection& connection, const amqp_frame_t& frame) {
  if (frame.frame_type != AMQP_FRAME_METHOD) return;
  const amqp_method_t& method = frame.payload.method;
  switch (method.id) {
    case AMQP_BASIC_ACK_METHOD: {
      const auto& ack = *static_cast<const amqp_basic_ack_t*>(method.decoded);
      if (std::exchange(_hasReturned, false)) throw std::runtime_error("a queue is gone");
      _unconfirmed.confirm(ack.delivery_tag, ack.multiple != 0, Published::stored);
      _confirmed = Unconfirmed::Clock::now();
      _stall = firstStall;
      _backOff = firstBackOff;
      return;
    }
    // A channel whose first message of a stream came while the node still took a dead one for the
    // leader refuses every one that follows; only another channel asks anew who leads.
    case AMQP_BASIC_NACK_METHOD: throw std::runtime_error("the node takes no messages");
    case AMQP_BASIC_RETURN_METHOD: _hasReturned = true; return skipReturned(connection);
    case AMQP_CONNECTION_BLOCKED_METHOD: _isBlocked = true; return;
    case AMQP_CONNECTION_UNBLOCKED_METHOD: _isBlocked = false; return;
    default: {
      amqp_rpc_reply_t reply{};
      reply.reply_type = AMQP_RESPONSE_SERVER_EXCEPTION;
      reply.reply = method;
      AMQPConnection::check(reply, "publishing");
    }
  }
}

void AMQPPublisher::checkStall() {
  const auto since = _unconfirmed.waitingSince();
  if (!since || _isBlocked) return;
  const auto now = Unconfirmed::Clock::now();
  if (now - std::max(*since, _confirmed) > _stall) {
    _stall = std::min(2 * _stall, longestStall);
    throw std::runtime_error("confirmations stay out");
  }
  if (now - *since > longestUnconfirmed) throw std::runtime_error("a confirmation stays out");
}

void AMQPPublisher::skipReturned(AMQPConnection& connection) {
  amqp_message_t message;
  AMQPConnection::check(amqp_read_message(connection.state(), AMQPConnection::channel, &message, 0),
                        "taking back a message");
  amqp_destroy_message(&message);
}

}  // namespace corvid::fleet
