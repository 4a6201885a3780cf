// Reads one message in place: structs, lists and texts as Cap'n Proto encodes them, in any number
// of segments.
//
// The message comes from the daemon, which is trusted with the content, not with the bounds:
// everything is checked. A field that the sender's schema did not know is zero or absent.
//
// Threads: one at a time.
// Errors: BadMessage, where it is malformed, or leads to the same words again and again so that
//         more is read of it than there is.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <stdexcept>
#include <string_view>
#include <type_traits>
#include <vector>

#include "base/LittleEndian.h"
#include "client/wire/Layout.h"

namespace corvid::library::wire {

class BadMessage final : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

class MessageReader {
 public:
  class List;

  // A view into the message, which must outlive it.
  class Struct {
   public:
    // Without a place every field of it is zero or absent.
    Struct() = default;

    template <class T>
    T get(Field<T> field) const {
      if constexpr (std::is_same_v<T, bool>) {
        const std::size_t byte = field.bit / 8;
        return byte < _data.size() && (_data[byte] >> field.bit % 8 & 1) != 0;
      } else {
        if (field.bit / 8 + sizeof(T) > _data.size()) return T{};
        return loadLittle<T>(_data.data() + field.bit / 8);
      }
    }
    bool has(Pointer at) const;
    Struct structAt(Pointer at) const;
    // Of structs; an absent one is empty.
    List listAt(Pointer at) const;
    std::string_view text(Pointer at) const;
    std::string_view data(Pointer at) const;

   private:
    friend class MessageReader;
    friend class List;
    std::string_view bytesAt(Pointer at) const;

    const MessageReader* _message = nullptr;
    std::string_view _data;
    std::size_t _segment = 0;
    std::size_t _pointers = 0;  // the first, in words of the segment
    std::size_t _pointerCount = 0;
    std::size_t _depth = 0;
  };

  class List {
   public:
    std::size_t size() const { return _count; }
    Struct operator[](std::size_t index) const;

   private:
    friend class Struct;
    Struct _first;
    std::size_t _count = 0;
    std::size_t _words = 0;  // of an element
    std::size_t _at = 0;     // the first element, in words of the segment
  };

  // How many bytes of the stream the message takes that begins there, as far as its beginning
  // tells; nothing where more of it must come first. Throws where it is larger than `most`.
  static std::optional<std::size_t> sizeOf(std::string_view stream, std::size_t most);
  // `message` is whole, as sizeOf() says, and borrowed.
  explicit MessageReader(std::string_view message);

  Struct root() const;

 private:
  // What a pointer leads to: where it stands, and the pointer that describes it.
  struct Target {
    std::size_t segment;
    std::size_t at;
    std::uint64_t description;
  };

  std::uint64_t word(std::size_t segment, std::size_t at) const;
  // Throws where the segment does not hold so many words there.
  void require(std::size_t segment, std::size_t at, std::size_t words) const;
  Target follow(std::size_t segment, std::size_t pointer) const;
  Struct structAt(std::size_t segment, std::size_t pointer, std::size_t depth) const;
  Struct place(std::size_t segment, std::size_t at, Size size, std::size_t depth) const;

  // Takes what is read of the message from what may be.
  void spend(std::size_t words) const;

  std::vector<std::string_view> _segments;
  mutable std::size_t _wordsLeft;
};

}  // namespace corvid::library::wire
