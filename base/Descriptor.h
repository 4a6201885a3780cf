// Owns one file descriptor.
#pragma once

#include <unistd.h>

#include <utility>

namespace corvid {

class Descriptor {
 public:
  explicit Descriptor(int descriptor = -1) : _descriptor(descriptor) {}
  ~Descriptor() { reset(); }
  Descriptor(Descriptor&& other) noexcept : _descriptor(std::exchange(other._descriptor, -1)) {}
  Descriptor& operator=(Descriptor&& other) noexcept {
    if (this != &other) {
      reset();
      _descriptor = std::exchange(other._descriptor, -1);
    }
    return *this;
  }

  int get() const { return _descriptor; }
  explicit operator bool() const { return _descriptor >= 0; }
  // The caller owns it from now on.
  int release() { return std::exchange(_descriptor, -1); }
  void reset() {
    if (_descriptor >= 0) close(std::exchange(_descriptor, -1));
  }

 private:
  int _descriptor;
};

}  // namespace corvid
