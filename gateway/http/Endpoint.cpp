#include "gateway/http/Endpoint.h"

#include <cstdint>
#include <string>

#include "base/Reading.h"

namespace corvid::fleet {

std::optional<boost::asio::ip::tcp::endpoint> endpointFrom(std::string_view text) {
  const std::size_t colon = text.rfind(':');
  if (colon == text.npos) return std::nullopt;
  const auto port = numberFrom<std::uint16_t>(text.substr(colon + 1));
  std::string_view host = text.substr(0, colon);
  const bool hasBrackets = host.size() > 2 && host.front() == '[' && host.back() == ']';
  if (hasBrackets) host = host.substr(1, host.size() - 2);
  boost::system::error_code error;
  const auto address = boost::asio::ip::make_address(std::string(host), error);
  if (!port || error || address.is_v6() != hasBrackets) return std::nullopt;
  return boost::asio::ip::tcp::endpoint(address, *port);
}

}  // namespace corvid::fleet
