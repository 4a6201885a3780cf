#include "tools/storebag/Source.h"

#include <fmt/format.h>

#include <optional>
#include <utility>

#include "base/Reading.h"
#include "platform/data/Crypto.h"
#include "platform/data/JSON.h"
#include "platform/data/LocalFileSystem.h"
#include "platform/data/PropertyList.h"
#include "tools/JSONValues.h"

namespace corvid::storebag {

namespace {

bool looksLikeJSON(std::string_view bytes) {
  const std::size_t first = bytes.find_first_not_of(" \t\r\n");
  return first != std::string_view::npos && (bytes[first] == '{' || bytes[first] == '[');
}

Result<Value> valueOfJSON(std::string_view text) {
  const Result<Value> json = parseJSON(text);
  return json ? tools::valueFromJSON(json.value()) : json;
}

Dictionary dictionaryOr(Result<Value> read, std::string_view what) {
  if (!read) throw CommandError(fmt::format("{}: {}", what, read.failure().message));
  const Dictionary* dictionary = read.value().dictionary();
  if (!dictionary) throw CommandError(fmt::format("{} is no dictionary", what));
  return *dictionary;
}

}  // namespace

std::string bytesOf(const std::string& file) {
  Result<std::string> read = readRegularFile(file);
  if (!read) throw CommandError(read.failure().message);
  return std::move(read).value();
}

Content contentOf(std::string bytes, std::string_view name) {
  Content content;
  content.isJSON = looksLikeJSON(bytes);
  content.storebag =
      dictionaryOr(content.isJSON ? valueOfJSON(bytes) : parsePropertyList(bytes), name);
  content.bytes = std::move(bytes);
  const std::string* bag = stringAt(content.storebag, "bag");
  if (content.isJSON || !bag) return content;

  content.isEnvelope = true;
  std::optional<std::string> inner = base64DecodeIgnoringUnknownCharacters(*bag);
  if (!inner) throw CommandError(fmt::format("{}: \"bag\" is no Base64", name));
  content.bytes = *std::move(inner);
  content.storebag =
      dictionaryOr(parsePropertyList(content.bytes), fmt::format("{}: \"bag\"", name));
  return content;
}

Content contentOfFile(const std::string& file) { return contentOf(bytesOf(file), file); }

}  // namespace corvid::storebag
