// One-shot compression of bodies with zlib.
#pragma once

#include <cstddef>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "base/Mutex.h"

namespace corvid {

// Keeps a few of zlib's streams for the next body: setting one up costs several microseconds and a
// quarter of a megabyte, more than it takes to compress a small body. Default level and strategy,
// memory level 8.
//
// Threads  any; none waits while another compresses.
// Errors   Nothing, after one error line.
class Compressor {
 public:
  // As many streams are kept; more may be in use at the same time.
  static constexpr std::size_t capacity = 2;

  Compressor();
  ~Compressor();

  // A gzip stream (`gzip` true) or a zlib stream of `data`, in a buffer with room for the worst
  // case.
  std::optional<std::string> compressDataWithZlibOrGzip(bool gzip, std::string_view data)
      EXCLUDES(_mutex);
  std::optional<std::string> gzipDeflate(std::string_view data) {
    return compressDataWithZlibOrGzip(true, data);
  }
  // Gives so many bytes from `offset` on, fewer at the end of what there is, or nothing where they
  // cannot be had.
  using Source = std::function<std::optional<std::string>(std::size_t offset, std::size_t bytes)>;
  // Takes the next piece of what is made; false where it cannot.
  using Sink = std::function<bool(std::string_view piece)>;
  // A gzip stream of at most `size` bytes of the source. Of both a piece at a time is in memory.
  // False, without a line, where the source is empty or fails, or the sink does.
  bool gzipDeflate(std::size_t size, const Source& source, const Sink& sink) EXCLUDES(_mutex);
  // What the latter makes at most.
  static std::size_t mostBytesFor(std::size_t size);

 private:
  struct Stream;

  // Ready for a new body; null after an error line.
  std::unique_ptr<Stream> begin(bool gzip) EXCLUDES(_mutex);
  void end(std::unique_ptr<Stream> stream) EXCLUDES(_mutex);
  std::unique_ptr<Stream> take(bool gzip) EXCLUDES(_mutex);
  void giveBack(std::unique_ptr<Stream> stream) EXCLUDES(_mutex);

  Mutex _mutex;
  std::vector<std::unique_ptr<Stream>> _idle GUARDED_BY(_mutex);
};

}  // namespace corvid
