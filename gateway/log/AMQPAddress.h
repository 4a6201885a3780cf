#pragma once

#include <chrono>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace corvid::fleet {

// Where the nodes of a log are that speaks AMQP 0-9-1, and as whom they are spoken to.
struct AMQPAddress {
  struct Node {
    std::string host;
    std::uint16_t port = 5672;
  };
  std::vector<Node> nodes;  // at least one
  std::string user = "guest";
  std::string password = "guest";
  std::string vhost = "/";
};

// Of "amqp://[USER:PASSWORD@]HOST[:PORT][,HOST[:PORT]]...[/VHOST]", parts with percent escapes
// where they need them. std::invalid_argument with what is wrong.
AMQPAddress amqpAddressFrom(std::string_view url);

}  // namespace corvid::fleet
