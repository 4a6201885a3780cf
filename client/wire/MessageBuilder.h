// Writes one message: a struct in one segment, as Cap'n Proto encodes it.
//
// Threads: none of its own; one at a time. Sizes are the caller's to bound.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string_view>
#include <type_traits>
#include <vector>

#include "base/LittleEndian.h"
#include "client/wire/Layout.h"

namespace corvid::library::wire {

class MessageBuilder {
 public:
  class List;

  // A struct in the message; good for as long as that is.
  class Struct {
   public:
    template <class T>
    void set(Field<T> field, std::type_identity_t<T> value) {
      if constexpr (std::is_same_v<T, bool>) {
        std::uint64_t word = _message->word(_data + field.bit / 64);
        if (value) word |= std::uint64_t{1} << field.bit % 64;
        _message->setWord(_data + field.bit / 64, word);
      } else {
        storeLittle(_message->bytes(_data) + field.bit / 8, value);
      }
    }
    Struct initStruct(Pointer at, Size size) const;
    // Of structs.
    List initList(Pointer at, std::size_t count, Size size) const;
    void setText(Pointer at, std::string_view text) const;
    void setData(Pointer at, std::string_view bytes) const;
    // The capability with that place in the message's table.
    void setCapability(Pointer at, std::uint32_t index) const;

   private:
    friend class MessageBuilder;
    friend class List;
    Struct(MessageBuilder& message, std::size_t data, Size size)
        : _message(&message), _data(data), _pointers(data + size.data) {}
    void setBytes(Pointer at, std::string_view bytes, bool ends) const;

    MessageBuilder* _message;
    std::size_t _data;  // in words, as all places
    std::size_t _pointers;
  };

  class List {
   public:
    Struct operator[](std::size_t index) const {
      return Struct(*_message, _first + index * (_size.data + _size.pointers), _size);
    }

   private:
    friend class Struct;
    List(MessageBuilder& message, std::size_t first, Size size)
        : _message(&message), _first(first), _size(size) {}
    MessageBuilder* _message;
    std::size_t _first;
    Size _size;
  };

  // With room for so many words.
  explicit MessageBuilder(std::size_t words = 64) {
    _words.reserve(words + 2);
    _words.resize(2);  // the segment's size and the pointer to the root
  }

  Struct initRoot(Size size);
  // What goes into the stream. Nothing may be added after it.
  std::string_view finished();

 private:
  static constexpr std::size_t root = 1;

  std::uint64_t word(std::size_t at) const { return loadLittle<std::uint64_t>(bytes(at)); }
  void setWord(std::size_t at, std::uint64_t value) { storeLittle(bytes(at), value); }
  char* bytes(std::size_t at) { return reinterpret_cast<char*>(&_words[at]); }
  const char* bytes(std::size_t at) const { return reinterpret_cast<const char*>(&_words[at]); }
  std::size_t allocate(std::size_t words) {
    const std::size_t at = _words.size();
    _words.resize(at + words);
    return at;
  }
  Struct putStruct(std::size_t pointer, Size size);

  std::vector<std::uint64_t> _words;  // little-endian each
};

}  // namespace corvid::library::wire
