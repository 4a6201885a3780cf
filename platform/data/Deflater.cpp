#include "platform/data/Deflater.h"

#include <zlib.h>

#include <algorithm>
#include <limits>

namespace corvid {

namespace {

constexpr int memoryLevel = 8;

int windowBits(DeflateFormat format) {
  constexpr int gzipWrapping = 16;
  return format == DeflateFormat::gzip ? MAX_WBITS + gzipWrapping : MAX_WBITS;
}

uInt counted(std::size_t length) {
  return static_cast<uInt>(std::min<std::size_t>(length, std::numeric_limits<uInt>::max()));
}

}  // namespace

struct Deflater::Stream {
  Stream() = default;
  Stream(const Stream&) = delete;
  Stream& operator=(const Stream&) = delete;
  ~Stream() { release(); }

  void release() {
    if (initialised) deflateEnd(&zlib);
    initialised = false;
    zlib = {};
  }

  z_stream zlib{};
  bool initialised = false;
  bool fed = false;  // the current input has been handed to zlib
  DeflateFormat format = DeflateFormat::zlib;
};

Deflater::Deflater() : _stream(std::make_unique<Stream>()) {}
Deflater::~Deflater() = default;

int Deflater::begin(DeflateFormat format) {
  _stream->fed = false;
  if (_stream->initialised && _stream->format == format) return deflateReset(&_stream->zlib);
  _stream->release();
  // The version that this code was written against; the library refuses one it cannot stand in for.
  const int result =
      deflateInit2_(&_stream->zlib, Z_DEFAULT_COMPRESSION, Z_DEFLATED, windowBits(format),
                    memoryLevel, Z_DEFAULT_STRATEGY, "1.2.8", static_cast<int>(sizeof(z_stream)));
  _stream->initialised = result == Z_OK;
  _stream->format = format;
  return result;
}

std::size_t Deflater::bound(std::size_t length) {
  return deflateBound(&_stream->zlib, static_cast<uLong>(length));
}

int Deflater::finish(std::string_view input, char* output, std::size_t room,
                     std::size_t& produced) {
  z_stream& zlib = _stream->zlib;
  if (!_stream->fed) {
    // zlib's interface lacks a const here; it only reads its input.
    zlib.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(input.data()));
    zlib.avail_in = static_cast<uInt>(input.size());
    _stream->fed = true;
  }
  zlib.next_out = reinterpret_cast<Bytef*>(output);
  zlib.avail_out = counted(room);
  const int result = deflate(&zlib, Z_FINISH);
  produced = zlib.total_out;
  return result;
}

void Deflater::end() {
  // The memory stays for the next stream: setting it up costs more than a small record's deflate.
}

std::string Deflater::message() const { return _stream->zlib.msg ? _stream->zlib.msg : "(null)"; }

}  // namespace corvid
