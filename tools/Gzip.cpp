#include "tools/Gzip.h"

#include <array>
#include <new>
#include <utility>

namespace corvid {

namespace {

constexpr int gzipWindow = MAX_WBITS + 16;

}  // namespace

GzipWriter::GzipWriter() {
  constexpr int memoryLevel = 8;
  if (deflateInit2(&_stream, Z_DEFAULT_COMPRESSION, Z_DEFLATED, gzipWindow, memoryLevel,
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

std::optional<std::string> gunzip(std::string_view stream, std::size_t limit) {
  z_stream inflater{};
  if (inflateInit2(&inflater, gzipWindow) != Z_OK) return std::nullopt;
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

}  // namespace corvid
