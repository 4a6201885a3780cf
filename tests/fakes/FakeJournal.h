// A journal for tests: a socket that takes entries in the native protocol.
#pragma once

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>

#include "base/Descriptor.h"
#include "base/UnixAddress.h"

namespace corvid {

class FakeJournal {
 public:
  using Entry = std::map<std::string, std::string>;

  // Listens from now on, in place of one that listened there before.
  explicit FakeJournal(const std::string& path) {
    unlink(path.c_str());
    EXPECT_EQ(UnixAddress(path).bind(_socket.get()), 0) << path;
  }

  // The next entry's fields; nothing where there is none.
  std::optional<Entry> take() {
    std::string bytes(256 << 10, '\0');
    const ssize_t size = recv(_socket.get(), bytes.data(), bytes.size(), 0);
    if (size < 0) return std::nullopt;
    return fieldsOf(std::string_view(bytes).substr(0, static_cast<std::size_t>(size)));
  }

 private:
  static Entry fieldsOf(std::string_view bytes) {
    Entry fields;
    while (!bytes.empty()) {
      const std::size_t nameEnd = bytes.find_first_of("=\n");
      const std::string name(bytes.substr(0, nameEnd));
      std::size_t size = 0;
      const bool hasLength = bytes[nameEnd] == '\n';
      bytes.remove_prefix(nameEnd + 1);
      if (hasLength) {
        for (unsigned at = 0; at < 8; ++at)
          size |= std::size_t{static_cast<unsigned char>(bytes[at])} << 8 * at;
        bytes.remove_prefix(8);
      } else {
        size = bytes.find('\n');
      }
      fields[name] = bytes.substr(0, size);
      bytes.remove_prefix(size + 1);
    }
    return fields;
  }

  const Descriptor _socket{socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0)};
};

}  // namespace corvid
