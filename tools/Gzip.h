// Gzip streams of other makers than the daemon: of the lab, of loads and of tests.
#pragma once

#include <zlib.h>

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

namespace corvid {

// Writes a stream in pieces, so that its content need not be in memory. At zlib's usual level.
//
// Threads   not synchronised.
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

// The content of one whole stream; nothing when it is damaged, cut off, followed by something else
// or over `limit` bytes.
std::optional<std::string> gunzip(std::string_view stream,
                                  std::size_t limit = std::size_t{1} << 30);

}  // namespace corvid
