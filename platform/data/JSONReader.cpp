#include <fmt/format.h>
#include <rapidjson/error/en.h>
#include <rapidjson/memorystream.h>
#include <rapidjson/reader.h>

#include <limits>
#include <utility>
#include <vector>

#include "platform/data/JSON.h"

namespace corvid {

namespace {

constexpr std::size_t greatestDepth = 64;

// Builds the value from the reader's events. False ends the reading.
class ValueBuilder {
 public:
  using Size = rapidjson::SizeType;

  bool Null() { return add({}); }
  bool Bool(bool value) { return add(value); }
  bool Int(int value) { return add(value); }
  bool Uint(unsigned value) { return add(value); }
  bool Int64(std::int64_t value) { return add(value); }
  bool Uint64(std::uint64_t value) {
    constexpr std::uint64_t most = std::numeric_limits<std::int64_t>::max();
    return value > most ? add(static_cast<double>(value)) : add(value);
  }
  bool Double(double value) { return add(value); }
  bool RawNumber(const char*, Size, bool) { return false; }  // not asked for
  bool String(const char* text, Size length, bool) { return add(std::string_view(text, length)); }
  bool Key(const char* text, Size length, bool) {
    _open.back().key.assign(text, length);
    return true;
  }
  bool StartObject() { return open(true); }
  bool EndObject(Size) {
    Dictionary finished = std::move(_open.back().entries);
    _open.pop_back();
    return add(std::move(finished));
  }
  bool StartArray() { return open(false); }
  bool EndArray(Size) {
    Array finished = std::move(_open.back().elements);
    _open.pop_back();
    return add(std::move(finished));
  }

  Value take() { return std::move(_root); }

 private:
  struct Container {
    bool isObject;
    Dictionary entries;
    Array elements;
    std::string key;  // of the entry that comes next
  };

  bool open(bool isObject) {
    if (_open.size() == greatestDepth) return false;
    _open.push_back({isObject, {}, {}, {}});
    return true;
  }

  bool add(Value value) {
    if (_open.empty())
      _root = std::move(value);
    else if (Container& container = _open.back(); container.isObject)
      container.entries.set(std::move(container.key), std::move(value));
    else
      container.elements.push_back(std::move(value));
    return true;
  }

  std::vector<Container> _open;
  Value _root;
};

Failure failureAt(std::size_t byte, std::string_view reason) {
  if (reason.ends_with('.')) reason.remove_suffix(1);
  return {fmt::format("{} at byte {}", reason, byte)};
}

}  // namespace

Result<Value> parseJSON(std::string_view text) {
  using namespace rapidjson;
  MemoryStream stream(text.data(), text.size());
  ValueBuilder builder;
  Reader reader;
  const ParseResult result =
      reader.Parse<kParseFullPrecisionFlag | kParseValidateEncodingFlag>(stream, builder);
  if (result.Code() == kParseErrorTermination)
    return failureAt(result.Offset(), fmt::format("Nested deeper than {} levels", greatestDepth));
  if (result.IsError()) return failureAt(result.Offset(), GetParseError_En(result.Code()));
  // The library takes a zero byte for the end.
  if (stream.Tell() < text.size())
    return failureAt(stream.Tell(), GetParseError_En(kParseErrorDocumentRootNotSingular));
  return builder.take();
}

}  // namespace corvid
