// Owns a file descriptor.
#pragma once

#include <unistd.h>

#include <utility>

namespace corvid {

class FileDescriptor {
 public:
  FileDescriptor() = default;
  explicit FileDescriptor(int descriptor) : _descriptor(descriptor) {}
  FileDescriptor(FileDescriptor&& other) noexcept : _descriptor(other.release()) {}
  FileDescriptor& operator=(FileDescriptor&& other) noexcept {
    std::swap(_descriptor, other._descriptor);
    return *this;
  }
  ~FileDescriptor() {
    if (_descriptor >= 0) close(_descriptor);
  }

  explicit operator bool() const { return _descriptor >= 0; }
  int get() const { return _descriptor; }
  int release() { return std::exchange(_descriptor, -1); }

 private:
  int _descriptor = -1;
};

}  // namespace corvid
