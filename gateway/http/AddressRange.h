// Addresses of clients and proxies.
#pragma once

#include <boost/asio/ip/address.hpp>
#include <optional>
#include <string>
#include <string_view>

namespace corvid::fleet {

// An IPv4 address that stands in an IPv6 one, as a socket of both kinds says it, as itself.
boost::asio::ip::address plainAddress(const boost::asio::ip::address& address);
// Nothing where the text is no address.
std::optional<boost::asio::ip::address> addressFrom(std::string_view text);

// All addresses that begin with the same bits.
class AddressRange {
 public:
  // "ADDRESS" or "ADDRESS/BITS"; nothing where the text is neither.
  static std::optional<AddressRange> parse(std::string_view text);

  bool holds(const boost::asio::ip::address& address) const;

 private:
  AddressRange(boost::asio::ip::address first, std::size_t bits)
      : _first(std::move(first)), _bits(bits) {}

  boost::asio::ip::address _first;
  std::size_t _bits;
};

// What counts as one client: an IPv4 address, or the first 64 bits of an IPv6 one, which a
// household has for itself.
std::string clientKey(const boost::asio::ip::address& address);

}  // namespace corvid::fleet
