// Text operations on UTF-8 that do not depend on the process's locale.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace corvid {

bool isASCII(std::string_view text);
constexpr bool isASCIILetterOrDigit(char c) {
  return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9');
}

struct DecodedCharacter {
  char32_t character = 0xFFFD;  // that one where the bytes are ill-formed
  std::size_t length = 1;       // bytes that it takes, 1 or more
  bool valid = false;
};
// The character that begins at `at`, which is before the end.
DecodedCharacter decodeUTF8(std::string_view text, std::size_t at);

// True for well-formed UTF-8 (no overlong forms, no surrogates, at most U+10FFFF).
bool isValidUTF8(std::string_view text);
// `text` with each ill-formed byte sequence replaced by U+FFFD.
std::string replacingInvalidUTF8(std::string_view text);
// Number of UTF-16 code units of well-formed UTF-8.
std::size_t utf16Length(std::string_view text);
// The UTF-16 code units; ill-formed byte sequences become U+FFFD.
std::u16string utf16(std::string_view text);
// Appends a character's UTF-8 form. It must be one: at most U+10FFFF and no surrogate.
void appendUTF8(std::string& text, char32_t character);

// Simple (one to one) Unicode lower-case mapping; ill-formed bytes stay.
std::string lowerCased(std::string_view text);
// Simple Unicode case folding, for comparison only.
std::string caseFolded(std::string_view text);
bool equalsIgnoringCase(std::string_view a, std::string_view b);
// True when `needle` occurs in `text`, ignoring case. An empty needle occurs nowhere.
bool containsIgnoringCase(std::string_view text, std::string_view needle);

// Splits at every separator, keeping empty parts: "a,,b" has three, "" has one.
std::vector<std::string_view> split(std::string_view text, char separator);
// Without the blanks, tabs and line ends around it.
std::string_view trimmed(std::string_view text);

// Two digits a byte, lower-case or upper-case.
std::string hexadecimal(std::string_view bytes);
std::string hexadecimal(std::span<const std::uint8_t> bytes);
std::string upperCaseHexadecimal(std::string_view bytes);
// The bytes of pairs of digits of either case; nothing where the text is anything else.
std::optional<std::string> bytesFromHexadecimal(std::string_view digits);

}  // namespace corvid
