// A granted file that the test describes, and that notes what was done with it.
#pragma once

#include <cstddef>
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
  std::string read(std::size_t size) override {
    reads.push_back(size);
    return content.substr(0, size);
  }
  void remove() override { ++removals; }

  std::string content;
  FileAttributes announced;
  std::vector<std::size_t> reads;  // how much was asked for
  int removals = 0;
};

}  // namespace corvid
