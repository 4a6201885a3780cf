// A value or the reason why there is none.
#pragma once

#include <string>
#include <utility>
#include <variant>

namespace corvid {

// `message` is one line for people, without a full stop; `code` is the failing layer's own.
struct Failure {
  std::string message;
  int code = 0;
};

template <class T>
class [[nodiscard]] Result {
 public:
  Result(T value) : _content(std::in_place_index<0>, std::move(value)) {}
  Result(Failure failure) : _content(std::in_place_index<1>, std::move(failure)) {}

  explicit operator bool() const { return _content.index() == 0; }
  // Only when there is a value.
  T& value() & { return std::get<0>(_content); }
  const T& value() const& { return std::get<0>(_content); }
  T&& value() && { return std::get<0>(std::move(_content)); }
  // Only when there is none.
  const Failure& failure() const { return std::get<1>(_content); }

 private:
  std::variant<T, Failure> _content;
};

}  // namespace corvid
