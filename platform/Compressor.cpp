#include "platform/Compressor.h"

#include <zlib.h>

#include <algorithm>
#include <limits>
#include <utility>

#include "base/Describe.h"
#include "base/Log.h"

namespace corvid {

namespace {

constexpr int memoryLevel = 8;
constexpr int gzipWrapping = 16;
// Of a source, and of what is made of it.
constexpr std::size_t pieceBytes = std::size_t{64} << 10;

constexpr std::string_view unknownError = "Unknown error code.";
constexpr std::string_view versionError =
    "The version of zlib.h and the version of the library linked do not match.";

std::string_view initialisationErrorText(int code) {
  switch (code) {
    case Z_VERSION_ERROR: return versionError;
    case Z_MEM_ERROR: return "Insufficient memory.";
    case Z_STREAM_ERROR: return "Invalid parameter passed in to function.";
    default: return unknownError;
  }
}

std::string_view compressionErrorText(int code) {
  switch (code) {
    case Z_VERSION_ERROR: return versionError;
    case Z_BUF_ERROR: return "Ran out of output buffer for writing compressed bytes.";
    case Z_MEM_ERROR: return "Memory could not be allocated for processing.";
    case Z_DATA_ERROR: return "The deflate data was invalid or incomplete.";
    case Z_STREAM_ERROR:
      return "The stream state was inconsistent (e.g., next_in or next_out was NULL).";
    case Z_ERRNO: return "Error occured while reading file.";
    default: return unknownError;
  }
}

}  // namespace

struct Compressor::Stream {
  explicit Stream(bool isGzip) : gzip(isGzip) {}
  Stream(const Stream&) = delete;
  Stream& operator=(const Stream&) = delete;
  ~Stream() {
    if (initialised) deflateEnd(&zlib);
  }

  int begin() {
    if (initialised) return deflateReset(&zlib);
    // The version that this code was written against; the library refuses one it cannot stand in
    // for.
    const int result = deflateInit2_(&zlib, Z_DEFAULT_COMPRESSION, Z_DEFLATED,
                                     gzip ? MAX_WBITS + gzipWrapping : MAX_WBITS, memoryLevel,
                                     Z_DEFAULT_STRATEGY, "1.2.8", static_cast<int>(sizeof zlib));
    initialised = result == Z_OK;
    return result;
  }
  void setInput(std::string_view data) {
    // zlib's interface lacks a const here; it only reads its input.
    zlib.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(data.data()));
    zlib.avail_in = static_cast<uInt>(data.size());
  }
  std::string_view message() const { return zlib.msg ? zlib.msg : nullDescription; }
  std::nullopt_t fail(int code) const {
    logError(
        "compressDataWithZlibOrGzip: zlib error while attempting compression: \"{}\" Message: \"{}\"",
        compressionErrorText(code), message());
    return std::nullopt;
  }

  const bool gzip;
  bool initialised = false;
  z_stream zlib{};
};

Compressor::Compressor() { _idle.reserve(capacity); }
Compressor::~Compressor() = default;

std::optional<std::string> Compressor::compressDataWithZlibOrGzip(bool gzip,
                                                                  std::string_view data) {
  if (data.empty()) {
    logError("compressDataWithZlibOrGzip: Cannot compress empty DataBuffer");
    return std::nullopt;
  }
  std::unique_ptr<Stream> stream = begin(gzip);
  if (!stream) return std::nullopt;
  z_stream& zlib = stream->zlib;
  std::string output(deflateBound(&zlib, static_cast<uLong>(data.size())), '\0');
  stream->setInput(data);
  int result = Z_OK;
  while (result == Z_OK) {
    zlib.next_out = reinterpret_cast<Bytef*>(output.data() + zlib.total_out);
    zlib.avail_out = static_cast<uInt>(
        std::min<std::size_t>(output.size() - zlib.total_out, std::numeric_limits<uInt>::max()));
    result = deflate(&zlib, Z_FINISH);
  }
  if (result != Z_STREAM_END) return stream->fail(result);
  output.resize(zlib.total_out);
  end(std::move(stream));
  return output;
}

bool Compressor::gzipDeflate(std::size_t size, const Source& source, const Sink& sink) {
  std::optional<std::string> piece = source(0, std::min(size, pieceBytes));
  if (!piece || piece->empty()) return false;
  std::unique_ptr<Stream> stream = begin(true);
  if (!stream) return false;
  z_stream& zlib = stream->zlib;
  std::string room(pieceBytes, '\0');
  std::size_t given = piece->size();
  stream->setInput(*piece);
  int result = Z_OK;
  while (result == Z_OK) {
    if (zlib.avail_in == 0 && !piece->empty()) {
      piece = given < size ? source(given, std::min(size - given, pieceBytes)) : std::string();
      if (!piece) return false;
      given += piece->size();
      stream->setInput(*piece);
    }
    zlib.next_out = reinterpret_cast<Bytef*>(room.data());
    zlib.avail_out = static_cast<uInt>(room.size());
    result = deflate(&zlib, piece->empty() ? Z_FINISH : Z_NO_FLUSH);
    const std::string_view made(room.data(), room.size() - zlib.avail_out);
    if (!made.empty() && !sink(made)) return false;
  }
  if (result != Z_STREAM_END) {
    stream->fail(result);
    return false;
  }
  end(std::move(stream));
  return true;
}

std::size_t Compressor::mostBytesFor(std::size_t size) {
  // What does not get smaller grows by less than a thousandth.
  return size + size / 1024 + 3 * pieceBytes;
}

std::unique_ptr<Compressor::Stream> Compressor::begin(bool gzip) {
  std::unique_ptr<Stream> stream = take(gzip);
  const int begun = stream->begin();
  if (begun == Z_OK) return stream;
  logError("compressDataWithZlibOrGzip: deflateInit2() Error: \"{}\" Message: \"{}\"",
           initialisationErrorText(begun), stream->message());
  return nullptr;
}

void Compressor::end(std::unique_ptr<Stream> stream) {
  logDebug("compressDataWithZlibOrGzip: Compressed file from {} to {}", stream->zlib.total_in,
           stream->zlib.total_out);
  giveBack(std::move(stream));
}

std::unique_ptr<Compressor::Stream> Compressor::take(bool gzip) {
  {
    MutexLock lock(_mutex);
    const auto found = std::ranges::find(_idle, gzip, [](const auto& idle) { return idle->gzip; });
    if (found != _idle.end()) {
      std::unique_ptr<Stream> stream = std::move(*found);
      _idle.erase(found);
      return stream;
    }
  }
  return std::make_unique<Stream>(gzip);
}

void Compressor::giveBack(std::unique_ptr<Stream> stream) {
  MutexLock lock(_mutex);
  if (_idle.size() < capacity) _idle.push_back(std::move(stream));
}

}  // namespace corvid
