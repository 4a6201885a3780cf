#include "gateway/Shared.h"

#include <algorithm>

namespace corvid::fleet {

bool InForce::isProxy(const boost::asio::ip::address& address) const {
  return std::ranges::any_of(proxies, [&](const auto& range) { return range.holds(address); });
}

}  // namespace corvid::fleet
