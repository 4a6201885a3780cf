// A granted file that the test describes, and that notes what was done with it.
#pragma once

#include <algorithm>
#include <cstddef>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "platform/ExtensionTokens.h"

namespace corvid {

class FakeGrantedFile final : public GrantedFile {
 public:
  explicit FakeGrantedFile(std::string bytes)
      : content(std::move(bytes)), announced{true, content.size()} {}

  FileAttributes attributes() override { return announced; }
  std::optional<std::string> read(std::size_t offset, std::size_t size) override {
    reads.push_back(size);
    if (offset >= unreadableFrom) return std::nullopt;
    return content.substr(std::min(offset, content.size()), size);
  }
  void remove() override { ++removals; }

  std::string content;
  FileAttributes announced;
  std::size_t unreadableFrom = std::string::npos;  // an offset
  std::vector<std::size_t> reads;                  // how much was asked for
  int removals = 0;
};

}  // namespace corvid
