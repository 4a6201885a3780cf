// One gzip stream, unpacked piece by piece.
#pragma once

#include <zlib.h>

#include <cstddef>
#include <memory>
#include <span>
#include <string_view>
#include <vector>

namespace corvid::fleet {

// Takes one whole gzip stream and nothing behind it.
//
// Not synchronised.
class Gunzip {
 public:
  enum class State { goesOn, whole, damaged };

  // Throws std::bad_alloc where there is no memory for it.
  Gunzip();
  ~Gunzip() { inflateEnd(&_stream); }
  Gunzip(const Gunzip&) = delete;
  Gunzip& operator=(const Gunzip&) = delete;

  // For another stream.
  void reset();
  // Takes from the front of `packed` what fits into `room` unpacked, and gives how many bytes that
  // are. Nothing is taken once the stream is whole or damaged.
  std::size_t unpack(std::string_view& packed, std::span<char> room);
  State state() const { return _state; }

 private:
  z_stream _stream{};
  State _state = State::goesOn;
};

// Those that a thread has no use for at the moment: each has tens of kilobytes, which are not made
// anew for each request.
//
// Not synchronised. Must outlive what it gives.
class Gunzips {
 public:
  struct Return {
    Gunzips* pool;
    void operator()(Gunzip* used) const;
  };
  using Lent = std::unique_ptr<Gunzip, Return>;

  Lent lend();

 private:
  static constexpr std::size_t mostKept = 16;
  std::vector<std::unique_ptr<Gunzip>> _kept;
};

}  // namespace corvid::fleet
