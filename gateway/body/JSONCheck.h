// Whether a text is a post's JSON, found out while it arrives.
#pragma once

#include <array>
#include <cstddef>
#include <optional>
#include <string_view>

#include "gateway/Limits.h"
#include "gateway/Rule.h"
#include "gateway/body/KeySet.h"

namespace corvid::fleet {

// Takes what RFC 8259 calls JSON in UTF-8, and of that only what every reader behind the gateway
// reads alike: one object with "events", an array of objects; at most limits::nesting levels; no
// key twice in one object; no NUL, whether escaped or not; no half surrogate pair; numbers that a
// double holds without overflow or underflow. No byte order mark. Each byte is looked at once, and
// no tree is built.
//
// Not synchronised.
class JSONCheck {
 public:
  // `text` is all that has come so far, what was given before included. `isWhole`: nothing more
  // comes. After a refusal, or once called with `isWhole`, it is not called again.
  std::optional<Refusal> advance(std::string_view text, bool isWhole);

  // That have begun so far.
  std::size_t events() const { return _events; }
  // What it has of the memory beside itself, about.
  std::size_t bytes() const { return _keys.bytes(); }

 private:
  enum class Expected {
    root,
    value,
    valueOrEnd,  // after "["
    key,
    keyOrEnd,  // after "{"
    colon,
    commaOrEnd,
    nothing,
  };
  enum class Step { done, lacking, refused };

  Step step();
  Step root();
  Step value();
  Step keyStart();
  Step string();
  Step escape();
  Step character();
  Step stringEnd();
  Step number();
  Step literal();
  Step open(bool isObject);
  Step close();
  Step afterValue();
  Step stepOverComma();
  Step stepOver(char separator, Expected next);
  Step refuse(Rule rule, std::optional<std::size_t> at = {});
  // Where the text goes on past what is there.
  Step lacking() { return _isWhole ? refuse(Rule::noJSON) : Step::lacking; }
  bool isInnermostObject() const { return _depth > 0 && _isObject[_depth - 1]; }

  std::string_view _text;
  bool _isWhole = false;
  std::size_t _at = 0;
  Expected _expected = Expected::root;
  // Within a string: where it began, behind the quotation mark.
  bool _isInString = false;
  bool _isKey = false;
  bool _hasEscapes = false;
  std::size_t _stringStart = 0;

  std::array<bool, limits::nesting> _isObject{};
  std::size_t _depth = 0;
  bool _valueIsEvents = false;  // of the key that was read last
  bool _isInEvents = false;
  bool _hasEvents = false;
  std::size_t _events = 0;
  KeySet _keys;
  std::optional<Refusal> _refusal;
};

}  // namespace corvid::fleet
