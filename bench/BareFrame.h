// How events reach the bare program: frames on a stream socket, as cheap to read as can be.
//
// A frame is its length (4 bytes, of this machine's order) and its entries; one of length 0 asks
// for a post. An entry is a letter for the type of its value ('s', 'i', 'r'), the length of its key
// in one byte, the key, and the value: 8 bytes, or for a text its length in 2 bytes and the text.
#pragma once

#include <corvid/corvid.h>

#include <cstdint>
#include <cstring>
#include <string>
#include <string_view>

namespace corvid::bench {

using BareLength = std::uint32_t;
using BareTextLength = std::uint16_t;

// A frame of texts, integers and reals. std::runtime_error where the payload holds anything else.
std::string bareFrame(const corvid_dictionary_t* payload);

// Takes what stands at the front of a frame off it.
template <class T>
T takeBare(std::string_view& frame) {
  T value;
  std::memcpy(&value, frame.data(), sizeof value);
  frame.remove_prefix(sizeof value);
  return value;
}
inline std::string_view takeBareText(std::string_view& frame, std::size_t length) {
  const std::string_view text = frame.substr(0, length);
  frame.remove_prefix(length);
  return text;
}

}  // namespace corvid::bench
