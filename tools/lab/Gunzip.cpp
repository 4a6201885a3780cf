#include "tools/lab/Gunzip.h"

#include <zlib.h>

#include <array>

namespace corvid::lab {

std::optional<std::string> gunzip(std::string_view stream, std::size_t limit) {
  z_stream inflater{};
  if (inflateInit2(&inflater, 31) != Z_OK) return std::nullopt;
  inflater.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(stream.data()));
  inflater.avail_in = static_cast<uInt>(stream.size());
  std::string content;
  std::array<Bytef, 16384> piece;
  int result = Z_OK;
  do {
    inflater.next_out = piece.data();
    inflater.avail_out = piece.size();
    result = inflate(&inflater, Z_NO_FLUSH);
    content.append(reinterpret_cast<const char*>(piece.data()), piece.size() - inflater.avail_out);
  } while (result == Z_OK && content.size() <= limit);
  const bool isWhole = result == Z_STREAM_END && inflater.avail_in == 0;
  inflateEnd(&inflater);
  if (!isWhole || content.size() > limit) return std::nullopt;
  return content;
}

}  // namespace corvid::lab
