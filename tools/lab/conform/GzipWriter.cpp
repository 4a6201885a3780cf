#include "tools/lab/conform/GzipWriter.h"

#include <array>
#include <new>
#include <utility>

namespace corvid::lab::conform {

GzipWriter::GzipWriter() {
  constexpr int asGzip = 16;
  constexpr int memoryLevel = 8;
  if (deflateInit2(&_stream, Z_DEFAULT_COMPRESSION, Z_DEFLATED, MAX_WBITS + asGzip, memoryLevel,
                   Z_DEFAULT_STRATEGY) != Z_OK)
    throw std::bad_alloc();
}

GzipWriter& GzipWriter::add(std::string_view content, std::size_t times) {
  for (std::size_t i = 0; i < times; ++i) deflateAll(content, Z_NO_FLUSH);
  return *this;
}

std::string GzipWriter::finish() {
  deflateAll({}, Z_FINISH);
  return std::move(_packed);
}

void GzipWriter::deflateAll(std::string_view content, int flush) {
  std::array<Bytef, 16384> piece;
  _stream.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(content.data()));
  _stream.avail_in = static_cast<uInt>(content.size());
  do {
    _stream.next_out = piece.data();
    _stream.avail_out = piece.size();
    deflate(&_stream, flush);
    _packed.append(reinterpret_cast<const char*>(piece.data()), piece.size() - _stream.avail_out);
  } while (_stream.avail_out == 0);
}

}  // namespace corvid::lab::conform
