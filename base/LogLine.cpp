#include "base/LogLine.h"

#include <fmt/format.h>

#include "base/Text.h"

namespace corvid {

namespace {

// What ends a line for some readers, or makes it read otherwise than it stands.
bool misleads(char32_t c) {
  return c == 0x061C || c == 0x200E || c == 0x200F || (c >= 0x2028 && c <= 0x202E) ||
         (c >= 0x2066 && c <= 0x2069);
}

bool isControl(char32_t c) { return c < 0x20 || (c >= 0x7F && c < 0xA0); }

std::string shown(const DecodedCharacter& decoded, std::string_view bytes) {
  if (!decoded.valid) {
    std::string escaped;
    for (const char byte : bytes)
      escaped += fmt::format("\\x{:02x}", static_cast<unsigned char>(byte));
    return escaped;
  }
  const auto code = static_cast<std::uint32_t>(decoded.character);
  if (decoded.character == '\n') return "\\n";
  if (decoded.character == '\t') return "\\t";
  if (isControl(decoded.character)) return fmt::format("\\x{:02x}", code);
  if (misleads(decoded.character)) return fmt::format("\\u{:04x}", code);
  return std::string(bytes);
}

}  // namespace

std::string logLine(std::string_view text, std::size_t bytes) {
  std::string line;
  line.reserve(text.size());
  std::size_t at = 0;
  while (at < text.size()) {
    const DecodedCharacter decoded = decodeUTF8(text, at);
    const std::size_t end = at + decoded.length;
    const bool isCut = !decoded.valid && end == text.size() && text.size() < bytes;
    const std::string piece = shown(decoded, text.substr(at, decoded.length));
    if (isCut || line.size() + piece.size() > logLineLimit) break;
    line += piece;
    at = end;
  }
  if (at < bytes) line += fmt::format(" [{} bytes left out]", bytes - at);
  return line;
}

}  // namespace corvid
