// Puts binary property lists together object by object, sound or not.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace corvid {

inline std::string bigEndian(std::uint64_t number, std::size_t size) {
  std::string bytes;
  for (std::size_t i = size; i-- > 0;) bytes.push_back(static_cast<char>(number >> (8 * i)));
  return bytes;
}

// The objects in order, each as its bytes; references in them are `referenceSize` wide.
struct BinaryList {
  std::vector<std::string> objects;
  std::size_t offsetSize = 2;
  std::size_t referenceSize = 1;
  std::uint64_t root = 0;

  std::string bytes() const {
    std::string out = "bplist00";
    std::string table;
    for (const std::string& object : objects) {
      table += bigEndian(out.size(), offsetSize);
      out += object;
    }
    const std::uint64_t tableOffset = out.size();
    return out + table + std::string(6, '\0') + bigEndian(offsetSize, 1) +
           bigEndian(referenceSize, 1) + bigEndian(objects.size(), 8) + bigEndian(root, 8) +
           bigEndian(tableOffset, 8);
  }
};

// A list of one object.
inline std::string binaryListOf(std::string object) {
  return BinaryList{{std::move(object)}}.bytes();
}

}  // namespace corvid
