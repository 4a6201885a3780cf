// The few things that are done with a URL as a text.
#pragma once

#include <string>
#include <string_view>

namespace corvid {

// Whether the text consists of what a URL, absolute or relative, may consist of: no blanks, no
// control characters, nothing but ASCII, escapes that are whole, one "#" at most.
bool isURL(std::string_view text);

// The text with every byte but those that may stand in a URL's query as they are (letters, digits
// and -._~!$&'()*+,;=:@/?) as an escape of two upper-case hexadecimal digits.
std::string percentEncodedForQuery(std::string_view text);

// The text with its escapes resolved. What is no escape stays as it is, and so does "%00", which no
// path can hold.
std::string percentDecoded(std::string_view text);

}  // namespace corvid
