#include "gateway/http/AddressRange.h"

#include <cstddef>
#include <vector>

#include "base/Reading.h"

namespace corvid::fleet {

namespace ip = boost::asio::ip;

namespace {

std::string bytesOf(const ip::address& address) {
  if (address.is_v4()) {
    const auto bytes = address.to_v4().to_bytes();
    return {bytes.begin(), bytes.end()};
  }
  const auto bytes = address.to_v6().to_bytes();
  return {bytes.begin(), bytes.end()};
}

bool beginAlike(const std::string& a, const std::string& b, std::size_t bits) {
  const std::size_t whole = bits / 8;
  if (a.compare(0, whole, b, 0, whole) != 0) return false;
  if (bits % 8 == 0) return true;
  const auto differing = static_cast<unsigned char>(a[whole] ^ b[whole]);
  return differing >> (8 - bits % 8) == 0;
}

}  // namespace

ip::address plainAddress(const ip::address& address) {
  if (!address.is_v6() || !address.to_v6().is_v4_mapped()) return address;
  return ip::make_address_v4(ip::v4_mapped, address.to_v6());
}

std::optional<ip::address> addressFrom(std::string_view text) {
  boost::system::error_code error;
  const ip::address address = ip::make_address(std::string(text), error);
  if (error) return std::nullopt;
  return plainAddress(address);
}

std::optional<AddressRange> AddressRange::parse(std::string_view text) {
  const std::size_t slash = text.find('/');
  const auto first = addressFrom(text.substr(0, slash));
  if (!first) return std::nullopt;
  const std::size_t most = first->is_v4() ? 32 : 128;
  if (slash == text.npos) return AddressRange(*first, most);
  const auto bits = numberFrom<std::size_t>(text.substr(slash + 1));
  if (!bits || *bits > most) return std::nullopt;
  return AddressRange(*first, *bits);
}

bool AddressRange::holds(const ip::address& address) const {
  return address.is_v4() == _first.is_v4() && beginAlike(bytesOf(address), bytesOf(_first), _bits);
}

std::string clientKey(const ip::address& address) {
  constexpr std::size_t household = 8;
  const std::string bytes = bytesOf(address);
  return address.is_v4() ? bytes : bytes.substr(0, household);
}

}  // namespace corvid::fleet
