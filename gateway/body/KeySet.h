// The keys of the JSON objects that are open, to find one that stands twice in its object.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace corvid::fleet {

// Keys are compared as the characters they mean: "\u0061" is "a". Exact, whatever the hashes. What
// it remembers is 20 bytes a key of the objects that are open.
//
// Not synchronised.
class KeySet {
 public:
  KeySet();

  void openObject() { _firsts.push_back(_keys.size()); }
  // `at`: where the key stands in the text, without its quotation marks.
  void add(std::string_view text, std::size_t at, std::size_t size, bool hasEscapes);
  std::size_t membersOfInnermost() const { return _keys.size() - _firsts.back(); }
  // What it has of the memory, about.
  std::size_t bytes() const {
    return _keys.capacity() * sizeof(Key) + _tags.capacity() * sizeof(std::uint32_t);
  }
  // Where the later one of two same keys of the innermost object stands; nothing where all differ.
  // The object is forgotten.
  std::optional<std::size_t> closeObject(std::string_view text);

 private:
  struct Key {
    std::uint64_t hash;
    std::uint32_t at;
    std::uint32_t size : 31;
    std::uint32_t hasEscapes : 1;
  };

  static bool areSame(std::string_view text, const Key& one, const Key& other);
  std::optional<std::size_t> twiceAmongFew(std::string_view text, std::size_t first) const;
  std::optional<std::size_t> twiceAmongMany(std::string_view text, std::size_t first);

  std::vector<Key> _keys;
  std::vector<std::uint32_t> _tags;  // of each key, from its hash: side by side for a quick look
  std::vector<std::size_t> _firsts;  // of each open object, in _keys
};

// The text that a JSON string means; its escapes must be sound.
std::string unescaped(std::string_view string);

}  // namespace corvid::fleet
