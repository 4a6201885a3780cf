// A file that a client passed over its connection.
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <utility>

#include "base/Descriptor.h"
#include "platform/ExtensionTokens.h"

namespace corvid {

// Whatever the client put there: nothing is opened anew, under whatever name, so the daemon can do
// with it what the client could, and no more. Only reading is done.
class PassedFile final : public GrantedFile {
 public:
  explicit PassedFile(Descriptor file) : _file(std::move(file)) {}

  // Regular files of the kernel's own making count as none: it may check the rights of whoever
  // reads them, who is then not the one that opened them.
  FileAttributes attributes() override;
  std::optional<std::string> read(std::size_t offset, std::size_t size) override;
  // Is noted; the client removes it when the call's operation is over.
  void remove() override { _isToBeRemoved = true; }
  bool isToBeRemoved() const { return _isToBeRemoved; }

 private:
  const Descriptor _file;
  bool _isToBeRemoved = false;
};

}  // namespace corvid
