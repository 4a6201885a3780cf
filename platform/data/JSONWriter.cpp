#include "base/TextWords.h"
#include "platform/data/JSON.h"
#include "platform/data/JSONText.h"
#include "platform/data/JSONWords.h"

namespace corvid {

namespace {

std::size_t mostTextBytes(std::string_view text) {
  std::uint64_t marks = 0;
  forEachWord(text, [&](std::uint64_t word) { marks |= marksSpecial(word); });
  if (isPlain(marks)) return text.size() + 2;
  std::size_t controls = 0;
  std::size_t escaped = 0;
  for (const char c : text) {
    controls += static_cast<unsigned char>(c) < 0x20;
    escaped += c == '"' || c == '\\';
  }
  return text.size() + 5 * controls + escaped + 2;
}

std::size_t mostBytes(const Value& value) {
  switch (value.type()) {
    case Value::Type::string: return mostTextBytes(*value.string());
    case Value::Type::array: {
      std::size_t bytes = 2;
      for (const Value& element : *value.array()) bytes += mostBytes(element) + 1;
      return bytes;
    }
    case Value::Type::dictionary: return mostJSONBytes(*value.dictionary());
    default: return numberRoom;
  }
}

}  // namespace

std::size_t mostJSONBytes(const Dictionary& object) {
  std::size_t bytes = 2;
  for (const auto& [key, value] : object) bytes += mostTextBytes(key) + mostBytes(value) + 2;
  return bytes;
}

std::optional<std::string> writeJSON(const Dictionary& object, std::size_t expected) {
  JSONText text(expected);
  text.beginObject();
  text.addEntries(object);
  text.endObject();
  return text.take();
}

std::string indentedJSON(std::string_view compact) {
  constexpr std::size_t step = 4;
  std::string text;
  text.reserve(compact.size() + compact.size() / 2);
  std::size_t indent = 0;
  const auto newLine = [&] { text.append(1, '\n').append(indent, ' '); };
  for (std::size_t at = 0; at < compact.size(); ++at) {
    const char c = compact[at];
    if (c == '"') {
      std::size_t end = at + 1;
      while (compact[end] != '"') end += compact[end] == '\\' ? 2 : 1;
      text.append(compact.substr(at, end + 1 - at));
      at = end;
    } else if (c == '{' || c == '[') {
      text.push_back(c);
      if (compact[at + 1] == c + 2) {  // the closing one: there is nothing inside
        text.push_back(compact[++at]);
        continue;
      }
      indent += step;
      newLine();
    } else if (c == '}' || c == ']') {
      indent -= step;
      newLine();
      text.push_back(c);
    } else {
      text.push_back(c);
      if (c == ',') newLine();
      if (c == ':') text.push_back(' ');
    }
  }
  return text;
}

}  // namespace corvid
