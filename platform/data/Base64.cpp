#include <openssl/evp.h>

#include <algorithm>

#include "base/Text.h"
#include "platform/data/Crypto.h"

namespace corvid {

namespace {

constexpr char padding = '=';

// The library counts in int: longer inputs go through it in whole groups.
constexpr std::size_t groupsAtOnce = std::size_t{1} << 20;

const unsigned char* bytesOf(std::string_view text) {
  return reinterpret_cast<const unsigned char*>(text.data());
}
unsigned char* bytesOf(std::string& text) { return reinterpret_cast<unsigned char*>(text.data()); }

bool isInAlphabet(char c) { return isASCIILetterOrDigit(c) || c == '+' || c == '/'; }

}  // namespace

std::string base64Encode(std::string_view bytes) {
  // One more for the library's terminating zero.
  std::string text((bytes.size() + 2) / 3 * 4 + 1, '\0');
  unsigned char* out = bytesOf(text);
  for (; !bytes.empty(); bytes.remove_prefix(std::min(bytes.size(), groupsAtOnce * 3)))
    out += EVP_EncodeBlock(out, bytesOf(bytes),
                           static_cast<int>(std::min(bytes.size(), groupsAtOnce * 3)));
  text.pop_back();
  return text;
}

std::optional<std::string> base64DecodeIgnoringUnknownCharacters(std::string_view text) {
  std::string known;
  known.reserve(text.size());
  std::size_t padded = 0;
  for (const char c : text) {
    if (c != padding && !isInAlphabet(c)) continue;
    if (c != padding && padded > 0) return std::nullopt;
    if (c == padding && ++padded > 2) return std::nullopt;
    known.push_back(c);
  }
  if (known.size() % 4 != 0) return std::nullopt;

  std::string bytes(known.size() / 4 * 3, '\0');
  unsigned char* out = bytesOf(bytes);
  for (std::string_view rest = known; !rest.empty();) {
    const std::size_t length = std::min(rest.size(), groupsAtOnce * 4);
    const int decoded = EVP_DecodeBlock(out, bytesOf(rest), static_cast<int>(length));
    if (decoded < 0) return std::nullopt;
    out += decoded;
    rest.remove_prefix(length);
  }
  bytes.resize(bytes.size() - padded);  // decoded as zero bytes
  return bytes;
}

}  // namespace corvid
