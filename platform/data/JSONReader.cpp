#include <fmt/format.h>
#include <rapidjson/error/en.h>
#include <rapidjson/memorystream.h>
#include <rapidjson/reader.h>

#include <cstdint>
#include <utility>
#include <vector>

#include "base/Reading.h"
#include "base/Text.h"
#include "platform/data/JSON.h"

namespace corvid {

namespace {

constexpr std::size_t greatestDepth = 64;

// Builds the value from the reader's events. An event that is refused ends the reading.
class ValueBuilder : public rapidjson::BaseReaderHandler<rapidjson::UTF8<>, ValueBuilder> {
 public:
  using Size = rapidjson::SizeType;

  bool Null() { return add({}); }
  bool Bool(bool value) { return add(value); }
  // Numbers come as text: the library's own reading of them is not exact at the edges.
  bool RawNumber(const char* text, Size length, bool) {
    const std::string_view number(text, length);
    if (const auto integer = numberFrom<std::int64_t>(number)) return add(*integer);
    if (const auto real = numberFrom<double>(number)) return add(*real);
    return refuse("Number out of range");
  }
  bool String(const char* text, Size length, bool) {
    return isText(text, length) && add(std::string_view(text, length));
  }
  bool Key(const char* text, Size length, bool) {
    if (!isText(text, length)) return false;
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
  const std::string& refusal() const { return _refusal; }

 private:
  struct Container {
    bool isObject;
    Dictionary entries;
    Array elements;
    std::string key;  // of the entry that comes next
  };

  bool open(bool isObject) {
    if (_open.size() == greatestDepth)
      return refuse(fmt::format("Nested deeper than {} levels", greatestDepth));
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

  // The library lets an escaped low surrogate pass that has no high one before it.
  bool isText(const char* text, Size length) {
    return isValidUTF8({text, length}) ||
           refuse(GetParseError_En(rapidjson::kParseErrorStringUnicodeSurrogateInvalid));
  }

  bool refuse(std::string reason) {
    _refusal = std::move(reason);
    return false;
  }

  std::vector<Container> _open;
  Value _root;
  std::string _refusal;
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
      reader.Parse<kParseNumbersAsStringsFlag | kParseValidateEncodingFlag>(stream, builder);
  if (result.Code() == kParseErrorTermination) return failureAt(result.Offset(), builder.refusal());
  if (result.IsError()) return failureAt(result.Offset(), GetParseError_En(result.Code()));
  // The library takes a zero byte for the end.
  if (stream.Tell() < text.size())
    return failureAt(stream.Tell(), GetParseError_En(kParseErrorDocumentRootNotSingular));
  return builder.take();
}

}  // namespace corvid
