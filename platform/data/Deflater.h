// zlib's deflate in one pass. Result codes and messages are zlib's own.
#pragma once

#include <cstddef>
#include <memory>
#include <string>
#include <string_view>

namespace corvid {

enum class DeflateFormat { zlib, gzip };

// One stream. Default level, memory level 8, default strategy. One thread at a time.
class Deflater {
 public:
  Deflater();
  virtual ~Deflater();
  Deflater(const Deflater&) = delete;
  Deflater& operator=(const Deflater&) = delete;

  // 0, or a negative code. May be called again after end(); the stream's memory is kept for that.
  virtual int begin(DeflateFormat format);
  // The most that `length` input bytes can become. After begin.
  virtual std::size_t bound(std::size_t length);
  // Compresses `input` with the finish flag into `room` at `output`; `produced` is what the stream
  // has produced in all. Later calls for the same stream pass the same input. 0 for progress, 1 for
  // the end, or a negative code.
  virtual int finish(std::string_view input, char* output, std::size_t room, std::size_t& produced);
  virtual void end();
  // What zlib left in the stream; "(null)" when nothing.
  virtual std::string message() const;

 private:
  struct Stream;
  std::unique_ptr<Stream> _stream;
};

}  // namespace corvid
