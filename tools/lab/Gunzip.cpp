#include "tools/lab/Gunzip.h"

#include <zlib.h>

#include <algorithm>

namespace corvid::lab {

std::optional<std::string> gunzip(std::string_view stream, std::size_t limit) {
  z_stream inflater{};
  if (inflateInit2(&inflater, 31) != Z_OK) return std::nullopt;
  inflater.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(stream.data()));
  inflater.avail_in = static_cast<uInt>(stream.size());
  std::string content;
  int result = Z_OK;
  while (result == Z_OK && content.size() < limit) {
    const std::size_t had = content.size();
    content.resize(std::min(limit, std::max<std::size_t>(4096, had * 2)));
    inflater.next_out = reinterpret_cast<Bytef*>(content.data() + had);
    inflater.avail_out = static_cast<uInt>(content.size() - had);
    result = inflate(&inflater, Z_NO_FLUSH);
    content.resize(content.size() - inflater.avail_out);
    if (inflater.avail_in == 0 && result == Z_OK && inflater.avail_out > 0) break;
  }
  inflateEnd(&inflater);
  if (result != Z_STREAM_END) return std::nullopt;
  return content;
}

}  // namespace corvid::lab
