#include "gateway/log/AMQPReader.h"

#include <random>
#include <stdexcept>

namespace corvid::fleet {

namespace {

LoggedMessage messageOf(const amqp_envelope_t& envelope) {
  LoggedMessage logged;
  logged.position = envelope.delivery_tag;
  logged.message.stream = textOf(envelope.routing_key);
  logged.message.body = textOf(envelope.message.body);
  const amqp_basic_properties_t& properties = envelope.message.properties;
  if ((properties._flags & AMQP_BASIC_MESSAGE_ID_FLAG) != 0)
    logged.message.id = textOf(properties.message_id);
  if ((properties._flags & AMQP_BASIC_HEADERS_FLAG) != 0)
    for (int at = 0; at < properties.headers.num_entries; ++at) {
      const amqp_table_entry_t& entry = properties.headers.entries[at];
      if (entry.value.kind == AMQP_FIELD_KIND_UTF8)
        logged.message.headers.emplace_back(textOf(entry.key), textOf(entry.value.value.bytes));
    }
  return logged;
}

}  // namespace

AMQPReader::AMQPReader(const AMQPAddress& address, const std::vector<std::string>& streams,
                       const Options& options)
    : _address(address),
      _streams(streams),
      _options(options),
      // Readers spread over the nodes, and one that is made anew does not stay at a node that logs
      // it in and then says nothing more.
      _next(std::random_device()() % address.nodes.size()) {
  connect();
}

void AMQPReader::connect() {
  _connection.reset();
  _read = _released = 0;
  _heard = std::chrono::steady_clock::now();
  std::string refusal;
  for (std::size_t tries = 0; !_connection && tries < _address.nodes.size(); ++tries) try {
      const AMQPAddress::Node& node = _address.nodes[_next];
      _next = (_next + 1) % _address.nodes.size();
      _connection = readingFrom(node);
    } catch (const std::runtime_error& error) {
      refusal = error.what();
    }
  if (!_connection) throw std::runtime_error(refusal);
}

std::unique_ptr<AMQPConnection> AMQPReader::readingFrom(const AMQPAddress::Node& node) const {
  auto connection = std::make_unique<AMQPConnection>(node, _options.connecting);
  connection->logIn(_address, _options.heartbeat);
  const amqp_connection_state_t state = connection->state();
  constexpr amqp_channel_t channel = AMQPConnection::channel;
  constexpr amqp_boolean_t isGlobal = 0, isNoLocal = 0, needsNoRelease = 0, isExclusive = 0;
  amqp_basic_qos(state, channel, 0, _options.ahead, isGlobal);
  AMQPConnection::check(amqp_get_rpc_reply(state), "limiting what is read ahead");
  for (const std::string& stream : _streams) {
    connection->declareStream(stream);
    amqp_basic_consume(state, channel, bytesOf(stream), amqp_empty_bytes, isNoLocal, needsNoRelease,
                       isExclusive, amqp_empty_table);
    AMQPConnection::check(amqp_get_rpc_reply(state), "reading a stream");
  }
  return connection;
}

bool AMQPReader::isSilent() const {
  // What is held would come again with another position.
  return _read == _released && std::chrono::steady_clock::now() - _heard > _options.silence;
}

std::vector<LoggedMessage> AMQPReader::read(std::size_t most, std::chrono::milliseconds wait) {
  if (isSilent()) connect();
  std::vector<LoggedMessage> messages;
  const amqp_connection_state_t state = _connection->state();
  std::size_t bytes = 0;
  // What is not taken here stays in the socket, and the node stops sending.
  while (messages.size() < most && bytes < _options.mostBytes) {
    amqp_maybe_release_buffers(state);
    amqp_envelope_t envelope;
    // What has arrived already is taken with the first.
    const auto limit = messages.empty() ? wait : std::chrono::milliseconds(0);
    const timeval time{limit.count() / 1000, (limit.count() % 1000) * 1000};
    const amqp_rpc_reply_t reply = amqp_consume_message(state, &envelope, &time, 0);
    if (reply.reply_type == AMQP_RESPONSE_LIBRARY_EXCEPTION &&
        reply.library_error == AMQP_STATUS_TIMEOUT)
      break;
    AMQPConnection::check(reply, "reading");
    messages.push_back(messageOf(envelope));
    bytes += messages.back().message.body.size();
    amqp_destroy_envelope(&envelope);
  }
  if (!messages.empty()) {
    _heard = std::chrono::steady_clock::now();
    _read = messages.back().position;
  }
  return messages;
}

void AMQPReader::release(std::uint64_t position) {
  constexpr amqp_boolean_t withEarlier = 1;
  AMQPConnection::check(
      amqp_basic_ack(_connection->state(), AMQPConnection::channel, position, withEarlier),
      "releasing messages");
  _released = position;
}

}  // namespace corvid::fleet
