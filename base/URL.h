// The few things that are done with a URL as a text.
#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace corvid {

// A URL taken apart. The parts are views of the text that it was read from; what the text lacks is
// empty.
struct URL {
  std::string_view scheme;     // without its colon; empty in a relative URL
  std::string_view authority;  // what stands between "//" and the path: user, host and port
  std::string_view host;       // of the authority; an IPv6 address in its brackets
};

// Nothing where the text is no URL, absolute or relative, by RFC 3986: where it is empty or has
// characters that must be escaped, an escape that is not whole, a second "#", a colon behind what
// is no scheme, brackets in its authority around or beside anything but one IPv6 address, or a port
// that is none (digits up to 65535, or none at all). Brackets behind the authority are let pass:
// queries are often written with them.
std::optional<URL> parseURL(std::string_view text);

// Whom a URL of http or https speaks to: its host with the port, the scheme's own where it names
// none; without a user. Empty where the text is no URL of a host.
std::string hostAndPort(std::string_view url);

// The text with every byte but those that may stand in a URL's query as they are (letters, digits
// and -._~!$&'()*+,;=:@/?) as an escape of two upper-case hexadecimal digits.
std::string percentEncodedForQuery(std::string_view text);
// The same for a path, in which a "?" becomes an escape too.
std::string percentEncodedForPath(std::string_view text);

// The text with its escapes resolved. What is no escape stays as it is, and so does "%00", which no
// path can hold.
std::string percentDecoded(std::string_view text);

}  // namespace corvid
