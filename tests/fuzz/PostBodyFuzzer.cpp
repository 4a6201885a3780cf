// Bodies of posts that nobody has checked. What the gateway's check takes, a library's reader takes
// too; it says the same of a text however it is cut; and gzip of a body ends as the body does.
#include <rapidjson/memorystream.h>
#include <rapidjson/reader.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "gateway/body/Gunzip.h"
#include "gateway/body/JSONCheck.h"
#include "gateway/body/LogData.h"
#include "tests/fuzz/Require.h"

namespace {

using namespace corvid;

std::optional<fleet::Refusal> checkWhole(std::string_view text) {
  fleet::JSONCheck check;
  return check.advance(text, true);
}

std::optional<fleet::Refusal> checkInPieces(std::string_view text, std::size_t piece) {
  fleet::JSONCheck check;
  for (std::size_t end = 0; end < text.size(); end += piece)
    if (auto refusal = check.advance(text.substr(0, end), false)) return refusal;
  return check.advance(text, true);
}

bool libraryTakes(std::string_view text) {
  using namespace rapidjson;
  MemoryStream stream(text.data(), text.size());
  BaseReaderHandler<UTF8<>> nothing;
  Reader reader;
  constexpr unsigned flags =
      kParseValidateEncodingFlag | kParseNumbersAsStringsFlag | kParseIterativeFlag;
  return !reader.Parse<flags>(stream, nothing).IsError() && stream.Tell() == text.size();
}

// Rules that the library does not have.
bool isOurs(fleet::Rule rule) {
  switch (rule) {
    case fleet::Rule::noJSON:
    case fleet::Rule::noUTF8:
    case fleet::Rule::trailing: return false;
    default: return true;
  }
}

void checkJSON(std::string_view text) {
  const auto whole = checkWhole(text);
  for (const std::size_t piece : {1u, 3u, 16u}) {
    const auto cut = checkInPieces(text, piece);
    fuzz::require(cut.has_value() == whole.has_value());
    if (whole) fuzz::require(cut->rule == whole->rule && cut->detail == whole->detail);
  }
  if (!whole || !isOurs(whole->rule)) fuzz::require(libraryTakes(text) == !whole);
}

void checkGzip(std::string_view packed) {
  constexpr std::size_t most = std::size_t{1} << 20;
  std::array<char, 4096> room;
  fleet::Gunzip gunzip;
  std::size_t total = 0;
  while (total < most) {
    const std::size_t made = gunzip.unpack(packed, room);
    fuzz::require(made <= room.size());
    total += made;
    if (made < room.size()) break;
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view input(reinterpret_cast<const char*>(data), size);
  checkJSON(input);
  checkGzip(input);
  (void)fleet::isLogData(input);
  return 0;
}
