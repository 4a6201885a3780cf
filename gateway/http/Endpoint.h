// "ADDRESS:PORT" of a listener.
#pragma once

#include <boost/asio/ip/tcp.hpp>
#include <optional>
#include <string_view>

namespace corvid::fleet {

// An IPv4 address, or an IPv6 one in brackets, and a port. Nothing where the text is something
// else.
std::optional<boost::asio::ip::tcp::endpoint> endpointFrom(std::string_view text);

}  // namespace corvid::fleet
