#include "gateway/log/AMQPAddress.h"

#include <fmt/format.h>

#include <stdexcept>

#include "base/Reading.h"
#include "base/URL.h"

namespace corvid::fleet {

namespace {

constexpr std::string_view scheme = "amqp://";

// What stands before the separator; `text` keeps what stands behind it. All of it where there is no
// separator.
std::string_view takeUntil(std::string_view& text, char separator) {
  const std::string_view part = text.substr(0, text.find(separator));
  text.remove_prefix(std::min(part.size() + 1, text.size()));
  return part;
}

AMQPAddress::Node nodeFrom(std::string_view text) {
  AMQPAddress::Node node;
  const bool isBracketed = text.starts_with('[');
  const std::size_t end = isBracketed ? text.find(']') : 0;
  if (end == text.npos) throw std::invalid_argument(fmt::format("\"{}\" lacks a bracket", text));
  const std::size_t colon = text.find(':', end);
  node.host = isBracketed ? text.substr(1, end - 1) : text.substr(0, colon);
  if (node.host.empty()) throw std::invalid_argument("a node of the log lacks its host");
  if (colon == text.npos) return node;
  const auto port = numberFrom<std::uint16_t>(text.substr(colon + 1));
  if (!port || *port == 0)
    throw std::invalid_argument(fmt::format("\"{}\" has no port that there can be", text));
  node.port = *port;
  return node;
}

}  // namespace

AMQPAddress amqpAddressFrom(std::string_view url) {
  if (!url.starts_with(scheme))
    throw std::invalid_argument(fmt::format("the log's address begins with {}", scheme));
  url.remove_prefix(scheme.size());
  AMQPAddress address;
  std::string_view authority = takeUntil(url, '/');
  if (!url.empty()) address.vhost = percentDecoded(url);
  if (const std::size_t at = authority.rfind('@'); at != authority.npos) {
    std::string_view login = authority.substr(0, at);
    authority.remove_prefix(at + 1);
    address.user = percentDecoded(takeUntil(login, ':'));
    address.password = percentDecoded(login);
  }
  const bool endsInComma = authority.ends_with(',');
  do address.nodes.push_back(nodeFrom(takeUntil(authority, ',')));
  while (!authority.empty() || endsInComma);
  return address;
}

}  // namespace corvid::fleet
