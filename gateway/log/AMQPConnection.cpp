#include "gateway/log/AMQPConnection.h"

#if __has_include(<rabbitmq-c/tcp_socket.h>)
#include <rabbitmq-c/tcp_socket.h>
#else
#include <amqp_tcp_socket.h>
#endif
#include <fmt/format.h>
#include <sys/socket.h>
#include <sys/time.h>

#include <array>
#include <stdexcept>

namespace corvid::fleet {

namespace {

constexpr int mostFrameBytes = 131072;

timeval timevalOf(std::chrono::seconds time) { return {time.count(), 0}; }

std::string closeText(const amqp_method_t& method) {
  if (method.id == AMQP_CONNECTION_CLOSE_METHOD)
    return textOf(static_cast<const amqp_connection_close_t*>(method.decoded)->reply_text);
  if (method.id == AMQP_CHANNEL_CLOSE_METHOD)
    return textOf(static_cast<const amqp_channel_close_t*>(method.decoded)->reply_text);
  return fmt::format("method {:#x}", method.id);
}

}  // namespace

AMQPConnection::AMQPConnection(const AMQPAddress::Node& node, std::chrono::seconds limit)
    : _state(amqp_new_connection()) {
  timeval wait = timevalOf(limit);
  amqp_socket_t* const socket = amqp_tcp_socket_new(state());
  if (socket == nullptr) throw std::runtime_error("no memory for a connection to the log");
  check(amqp_socket_open_noblock(socket, node.host.c_str(), node.port, &wait), "connecting");
  amqp_set_handshake_timeout(state(), &wait);
  amqp_set_rpc_timeout(state(), &wait);
}

void AMQPConnection::logIn(const AMQPAddress& address, std::chrono::seconds heartbeat) {
  check(amqp_login(state(), address.vhost.c_str(), 1, mostFrameBytes,
                   static_cast<int>(heartbeat.count()), AMQP_SASL_METHOD_PLAIN,
                   address.user.c_str(), address.password.c_str()),
        "logging in");
  amqp_channel_open(state(), channel);
  check(amqp_get_rpc_reply(state()), "opening a channel");
}

void AMQPConnection::declareStream(const std::string& stream) {
  std::array<amqp_table_entry_t, 1> entries{};
  entries[0].key = bytesOf("x-queue-type");
  entries[0].value.kind = AMQP_FIELD_KIND_UTF8;
  entries[0].value.value.bytes = bytesOf("quorum");
  const amqp_table_t arguments{static_cast<int>(entries.size()), entries.data()};
  constexpr amqp_boolean_t isPassive = 0, isDurable = 1, isExclusive = 0, deletesItself = 0;
  amqp_queue_declare(state(), channel, bytesOf(stream), isPassive, isDurable, isExclusive,
                     deletesItself, arguments);
  check(amqp_get_rpc_reply(state()), "declaring a queue");
}

void AMQPConnection::check(int status, const char* what) {
  if (status != AMQP_STATUS_OK)
    throw std::runtime_error(fmt::format("{}: {}", what, amqp_error_string2(status)));
}

void AMQPConnection::check(const amqp_rpc_reply_t& reply, const char* what) {
  if (reply.reply_type == AMQP_RESPONSE_NORMAL) return;
  throw std::runtime_error(fmt::format("{}: {}", what,
                                       reply.reply_type == AMQP_RESPONSE_SERVER_EXCEPTION
                                           ? closeText(reply.reply)
                                           : amqp_error_string2(reply.library_error)));
}

}  // namespace corvid::fleet
