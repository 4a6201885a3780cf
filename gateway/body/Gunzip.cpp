#include "gateway/body/Gunzip.h"

#include <algorithm>
#include <limits>
#include <new>

namespace corvid::fleet {

Gunzip::Gunzip() {
  constexpr int onlyGzip = 16;
  if (inflateInit2(&_stream, MAX_WBITS + onlyGzip) != Z_OK) throw std::bad_alloc();
}

void Gunzip::reset() {
  inflateReset(&_stream);
  _state = State::goesOn;
}

std::size_t Gunzip::unpack(std::string_view& packed, std::span<char> room) {
  if (_state != State::goesOn) return 0;
  constexpr std::size_t most = std::numeric_limits<uInt>::max();
  _stream.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(packed.data()));
  _stream.avail_in = static_cast<uInt>(std::min(packed.size(), most));
  _stream.next_out = reinterpret_cast<Bytef*>(room.data());
  _stream.avail_out = static_cast<uInt>(std::min(room.size(), most));
  const uInt in = _stream.avail_in;
  const uInt out = _stream.avail_out;
  const int result = inflate(&_stream, Z_NO_FLUSH);
  packed.remove_prefix(in - _stream.avail_in);
  if (result == Z_STREAM_END) {
    _state = State::whole;
  } else if (result != Z_OK && result != Z_BUF_ERROR) {
    _state = State::damaged;
  }
  return out - _stream.avail_out;
}

Gunzips::Lent Gunzips::lend() {
  if (_kept.empty()) return Lent(std::make_unique<Gunzip>().release(), {this});
  Lent lent(_kept.back().release(), {this});
  _kept.pop_back();
  lent->reset();
  return lent;
}

void Gunzips::Return::operator()(Gunzip* used) const {
  std::unique_ptr<Gunzip> owned(used);
  if (pool->_kept.size() < mostKept) pool->_kept.push_back(std::move(owned));
}

}  // namespace corvid::fleet
