#include "base/Text.h"

#include <locale.h>
#include <wctype.h>

#include <algorithm>
#include <charconv>
#include <clocale>
#include <cstdint>
#include <cstring>

#include "base/TextWords.h"

namespace corvid {

namespace {

constexpr char32_t replacement = 0xFFFD;

bool isContinuation(std::string_view text, std::size_t at) {
  return at < text.size() && (static_cast<unsigned char>(text[at]) & 0xC0) == 0x80;
}

}  // namespace

DecodedCharacter decodeUTF8(std::string_view text, std::size_t at) {
  const auto byte = [&](std::size_t i) {
    return static_cast<char32_t>(static_cast<unsigned char>(text[i]));
  };
  const char32_t first = byte(at);
  if (first < 0x80) return {first, 1, true};
  std::size_t length = 0;
  char32_t character = 0;
  char32_t least = 0;
  if (first >= 0xC2 && first <= 0xDF) {
    length = 2, character = first & 0x1F, least = 0x80;
  } else if (first >= 0xE0 && first <= 0xEF) {
    length = 3, character = first & 0x0F, least = 0x800;
  } else if (first >= 0xF0 && first <= 0xF4) {
    length = 4, character = first & 0x07, least = 0x10000;
  } else {
    return {};
  }
  for (std::size_t i = 1; i < length; ++i) {
    if (!isContinuation(text, at + i)) return {replacement, i, false};
    character = (character << 6) | (byte(at + i) & 0x3F);
  }
  if (character < least || character > 0x10FFFF || (character >= 0xD800 && character <= 0xDFFF))
    return {replacement, length, false};
  return {character, length, true};
}

namespace {

// The C library's Unicode tables, whatever locale the process runs in. C.UTF-8 is part of every
// Debian system; without it only ASCII letters are mapped.
locale_t unicodeLocale() {
  static const locale_t locale = newlocale(LC_CTYPE_MASK, "C.UTF-8", nullptr);
  return locale;
}

char32_t lower(char32_t character) {
  if (character < 0x80) return character >= 'A' && character <= 'Z' ? character + 32 : character;
  const locale_t locale = unicodeLocale();
  return locale ? static_cast<char32_t>(towlower_l(static_cast<wint_t>(character), locale))
                : character;
}

char32_t loweredASCII(char c) { return lower(static_cast<unsigned char>(c)); }

char32_t fold(char32_t character) {
  if (character < 0x80) return lower(character);
  // The dotted and dotless i have no simple folding of their own.
  if (character == 0x130 || character == 0x131) return character;
  const locale_t locale = unicodeLocale();
  if (!locale) return character;
  const wint_t upper = towupper_l(static_cast<wint_t>(character), locale);
  return static_cast<char32_t>(towlower_l(upper, locale));
}

template <class Mapping>
std::string mapped(std::string_view text, Mapping mapping) {
  std::string result;
  result.reserve(text.size());
  for (std::size_t at = 0; at < text.size();) {
    const DecodedCharacter decoded = decodeUTF8(text, at);
    if (decoded.valid)
      appendUTF8(result, mapping(decoded.character));
    else
      result.append(text, at, decoded.length);
    at += decoded.length;
  }
  return result;
}

std::string digitsOf(std::string_view bytes, const char* digits) {
  std::string text;
  text.reserve(bytes.size() * 2);
  for (const char c : bytes) {
    const auto byte = static_cast<unsigned char>(c);
    text.push_back(digits[byte >> 4]);
    text.push_back(digits[byte & 15]);
  }
  return text;
}

}  // namespace

bool isASCII(std::string_view text) {
  std::uint64_t seen = 0;
  forEachWord(text, [&](std::uint64_t word) { seen |= word; });
  return (seen & everyByte(0x80)) == 0;
}

void appendUTF8(std::string& text, char32_t character) {
  const auto byte = [&](char32_t bits) { text.push_back(static_cast<char>(bits)); };
  if (character < 0x80) {
    byte(character);
  } else if (character < 0x800) {
    byte(0xC0 | (character >> 6)), byte(0x80 | (character & 0x3F));
  } else if (character < 0x10000) {
    byte(0xE0 | (character >> 12)), byte(0x80 | ((character >> 6) & 0x3F));
    byte(0x80 | (character & 0x3F));
  } else {
    byte(0xF0 | (character >> 18)), byte(0x80 | ((character >> 12) & 0x3F));
    byte(0x80 | ((character >> 6) & 0x3F)), byte(0x80 | (character & 0x3F));
  }
}

bool isValidUTF8(std::string_view text) {
  if (isASCII(text)) return true;
  for (std::size_t at = 0; at < text.size();) {
    const DecodedCharacter decoded = decodeUTF8(text, at);
    if (!decoded.valid) return false;
    at += decoded.length;
  }
  return true;
}

std::string replacingInvalidUTF8(std::string_view text) {
  std::string result;
  result.reserve(text.size());
  for (std::size_t at = 0; at < text.size();) {
    const DecodedCharacter decoded = decodeUTF8(text, at);
    appendUTF8(result, decoded.character);
    at += decoded.length;
  }
  return result;
}

std::u16string utf16(std::string_view text) {
  std::u16string units;
  units.reserve(text.size());
  for (std::size_t at = 0; at < text.size();) {
    const DecodedCharacter decoded = decodeUTF8(text, at);
    at += decoded.length;
    if (decoded.character < 0x10000) {
      units.push_back(static_cast<char16_t>(decoded.character));
    } else {
      units.push_back(static_cast<char16_t>(0xD7C0 + (decoded.character >> 10)));
      units.push_back(static_cast<char16_t>(0xDC00 | (decoded.character & 0x3FF)));
    }
  }
  return units;
}

std::size_t utf16Length(std::string_view text) {
  return isASCII(text) ? text.size() : utf16(text).size();
}

std::string lowerCased(std::string_view text) { return mapped(text, lower); }
std::string caseFolded(std::string_view text) { return mapped(text, fold); }

bool equalsIgnoringCase(std::string_view a, std::string_view b) {
  if (a == b) return true;
  if (!isASCII(a) || !isASCII(b)) return caseFolded(a) == caseFolded(b);
  return std::ranges::equal(a, b, {}, loweredASCII, loweredASCII);
}

bool containsIgnoringCase(std::string_view text, std::string_view needle) {
  if (needle.empty()) return false;
  if (!isASCII(text) || !isASCII(needle))
    return caseFolded(text).find(caseFolded(needle)) != std::string::npos;
  // std::ranges::search has a result that clang 14 cannot use.
  const auto isSame = [](char a, char b) { return loweredASCII(a) == loweredASCII(b); };
  return std::search(text.begin(), text.end(), needle.begin(), needle.end(), isSame) != text.end();
}

std::vector<std::string_view> split(std::string_view text, char separator) {
  std::vector<std::string_view> parts;
  for (;;) {
    const std::size_t end = text.find(separator);
    parts.push_back(text.substr(0, end));
    if (end == std::string_view::npos) return parts;
    text.remove_prefix(end + 1);
  }
}

std::string_view trimmed(std::string_view text) {
  constexpr std::string_view blanks = " \t\r\n";
  const std::size_t first = text.find_first_not_of(blanks);
  if (first == std::string_view::npos) return {};
  return text.substr(first, text.find_last_not_of(blanks) - first + 1);
}

std::string hexadecimal(std::string_view bytes) { return digitsOf(bytes, "0123456789abcdef"); }
std::string hexadecimal(std::span<const std::uint8_t> bytes) {
  return hexadecimal({reinterpret_cast<const char*>(bytes.data()), bytes.size()});
}
std::string upperCaseHexadecimal(std::string_view bytes) {
  return digitsOf(bytes, "0123456789ABCDEF");
}

std::optional<std::string> bytesFromHexadecimal(std::string_view digits) {
  if (digits.size() % 2 != 0) return std::nullopt;
  std::string bytes(digits.size() / 2, '\0');
  for (std::size_t i = 0; i < bytes.size(); ++i) {
    const char* const pair = digits.data() + 2 * i;
    std::uint8_t byte = 0;
    if (std::from_chars(pair, pair + 2, byte, 16).ptr != pair + 2) return std::nullopt;
    bytes[i] = static_cast<char>(byte);
  }
  return bytes;
}

}  // namespace corvid
