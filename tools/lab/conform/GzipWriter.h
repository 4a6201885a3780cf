// Gzip streams, those too whose content nobody would keep in memory.
#pragma once

#include <zlib.h>

#include <cstddef>
#include <string>
#include <string_view>

namespace corvid::lab::conform {

// Not synchronised.
class GzipWriter {
 public:
  // Throws std::bad_alloc where there is no memory for it.
  GzipWriter();
  ~GzipWriter() { deflateEnd(&_stream); }
  GzipWriter(const GzipWriter&) = delete;
  GzipWriter& operator=(const GzipWriter&) = delete;

  // The content, so many times.
  GzipWriter& add(std::string_view content, std::size_t times = 1);
  // The whole stream; the last call.
  std::string finish();

 private:
  void deflateAll(std::string_view content, int flush);

  z_stream _stream{};
  std::string _packed;
};

inline std::string gzip(std::string_view content) { return GzipWriter().add(content).finish(); }

}  // namespace corvid::lab::conform
