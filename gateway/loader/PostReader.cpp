#include "gateway/loader/PostReader.h"

#include <fmt/format.h>
#include <rapidjson/error/en.h>
#include <rapidjson/memorystream.h>
#include <rapidjson/reader.h>

#include <array>
#include <stdexcept>
#include <utility>

#include "base/Reading.h"
#include "gateway/Limits.h"

namespace corvid::fleet {

namespace {

// Deeper texts would take the stack.
constexpr int deepest = 100;

// What stands in each row may not make many of a few bytes.
constexpr std::size_t mostClientBytes = 1024;

// Follows the reader, and takes from the root, and from each object of its array "events", what is
// asked for.
class PostHandler : public rapidjson::BaseReaderHandler<rapidjson::UTF8<>, PostHandler> {
 public:
  using Size = rapidjson::SizeType;
  PostHandler(std::string_view body, const rapidjson::MemoryStream& stream)
      : _body(body), _stream(stream) {}

  bool Default() { return isNoEvent(); }
  // As it is written: the library's own reading refuses numbers that a double holds, such as 0e999.
  bool RawNumber(const char* text, Size length, bool) {
    if (isInEvent()) takeNumber({text, length});
    return isNoEvent();
  }

  bool String(const char* text, Size length, bool) {
    if (_depth == root && _key == "clientId") {
      _post.client.assign(text, length);
      _hasClient = true;
    }
    if (isInEvent()) {
      PostedEvent& event = _post.events.back();
      const std::array<std::pair<std::string_view, std::optional<std::string>*>, 3> texts{
          {{"_sender", &event.sender}, {"_sessionID", &event.session}, {"_build", &event.build}}};
      for (const auto& [key, target] : texts)
        if (key == _key) target->emplace(text, length);
    }
    return isNoEvent();
  }

  bool Key(const char* text, Size length, bool) {
    if (_depth == root || isInEvent()) _key.assign(text, length);
    return true;
  }

  bool StartObject() {
    if (_depth == 0) _isObject = true;
    if (_depth == events && _isInEvents) {
      if (_post.events.size() == limits::events) return false;
      _post.events.emplace_back();
      _begin = _stream.Tell() - 1;
    }
    return ++_depth <= deepest;
  }
  bool EndObject(Size) {
    --_depth;
    if (_depth == events && _isInEvents)
      _post.events.back().payload = _body.substr(_begin, _stream.Tell() - _begin);
    return true;
  }
  bool StartArray() {
    if (!isNoEvent()) return false;
    if (_depth == root && _key == "events") {
      _isInEvents = _hasEvents = true;
      _post.events.clear();  // of several the last counts, as everywhere
    }
    return ++_depth <= deepest;
  }
  bool EndArray(Size) {
    if (--_depth == root) _isInEvents = false;
    return true;
  }

  // Once the reader is through.
  Post take() {
    if (!_isObject || !_hasEvents) throw std::invalid_argument("there is no array \"events\"");
    if (!_hasClient) throw std::invalid_argument("there is no text \"clientId\"");
    if (_post.client.size() > mostClientBytes)
      throw std::invalid_argument(
          fmt::format("\"clientId\" has more than {} bytes", mostClientBytes));
    return std::move(_post);
  }

 private:
  static constexpr int root = 1;
  static constexpr int events = 2;

  // Of the object of an event itself, not of what it holds.
  bool isInEvent() const { return _isInEvents && _depth == events + 1; }
  // Else something that is no object stands in the array of events.
  bool isNoEvent() const { return !_isInEvents || _depth != events; }

  void takeNumber(std::string_view text) {
    PostedEvent& event = _post.events.back();
    const std::array<std::pair<std::string_view, std::optional<std::int64_t>*>, 4> numbers{
        {{"_method", &event.method},
         {"_status", &event.status},
         {"_eventNumber", &event.number},
         {"_clientVersion", &event.version}}};
    for (const auto& [key, target] : numbers)
      if (key == _key) *target = numberFrom<std::int64_t>(text);
    if (_key == "eventTime") event.time = numberFrom<double>(text);
  }

  const std::string_view _body;
  const rapidjson::MemoryStream& _stream;
  Post _post;
  std::string _key;
  std::size_t _begin = 0;
  int _depth = 0;
  bool _isObject = false;
  bool _hasClient = false;
  bool _hasEvents = false;
  bool _isInEvents = false;
};

}  // namespace

Post postFrom(std::string_view body) {
  rapidjson::MemoryStream stream(body.data(), body.size());
  PostHandler handler(body, stream);
  rapidjson::Reader reader;
  constexpr unsigned flags =
      rapidjson::kParseValidateEncodingFlag | rapidjson::kParseNumbersAsStringsFlag;
  const rapidjson::ParseResult result = reader.Parse<flags>(stream, handler);
  if (result.Code() == rapidjson::kParseErrorTermination)
    throw std::invalid_argument(
        fmt::format("\"events\" holds something else than objects, more than {}, or is too deep",
                    limits::events));
  if (result.IsError())
    throw std::invalid_argument(
        fmt::format("{} (byte {})", rapidjson::GetParseError_En(result.Code()), result.Offset()));
  return handler.take();
}

}  // namespace corvid::fleet
