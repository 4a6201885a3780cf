#include "platform/Network.h"

#include <arpa/inet.h>
#include <netinet/in.h>

namespace corvid {

std::uint32_t ipv4AddressFromText(std::string_view text) {
  const std::string address(text.substr(0, INET_ADDRSTRLEN - 1));
  return ntohl(inet_addr(address.c_str()));
}

}  // namespace corvid
