#pragma once

// Since 0.12 the library has its headers in a folder of its own, and warns of the others.
#if __has_include(<rabbitmq-c/amqp.h>)
#include <rabbitmq-c/amqp.h>
#else
#include <amqp.h>
#endif

#include <chrono>
#include <memory>
#include <string>
#include <string_view>

#include "gateway/log/AMQPAddress.h"

namespace corvid::fleet {

// A connection with one channel to one node. One thread, but for shutDown. What goes wrong is a
// std::runtime_error, after which the connection is of no use.
class AMQPConnection {
 public:
  static constexpr amqp_channel_t channel = 1;

  // Connects; each answer of the node is waited for up to `limit`.
  AMQPConnection(const AMQPAddress::Node& node, std::chrono::seconds limit);

  amqp_connection_state_t state() const { return _state.get(); }
  int socket() const { return amqp_get_sockfd(state()); }

  // Has to be called first. Where the node has said nothing for two `heartbeat`s, the connection
  // counts as lost; it has to be used at least as often.
  void logIn(const AMQPAddress& address, std::chrono::seconds heartbeat);

  // Makes the queue of a stream where it is missing: each message on the disk of a majority of the
  // nodes before it is confirmed.
  void declareStream(const std::string& stream);

  // Throws unless `status` is that of success, or `reply` that of an answered call.
  static void check(int status, const char* what);
  static void check(const amqp_rpc_reply_t& reply, const char* what);

 private:
  struct Deleter {
    void operator()(amqp_connection_state_t state) const { amqp_destroy_connection(state); }
  };
  const std::unique_ptr<amqp_connection_state_t_, Deleter> _state;
};

// Views of bytes, without copies.
inline amqp_bytes_t bytesOf(std::string_view text) {
  return {text.size(), const_cast<char*>(text.data())};
}
inline std::string textOf(const amqp_bytes_t& bytes) {
  return {static_cast<const char*>(bytes.bytes), bytes.len};
}

}  // namespace corvid::fleet
