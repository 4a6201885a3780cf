#include "tools/storebag/Source.h"

#include <fmt/format.h>

#include <memory>
#include <optional>
#include <utility>

#include "base/Reading.h"
#include "config/StorebagFetch.h"
#include "platform/data/Crypto.h"
#include "platform/data/Deployment.h"
#include "platform/data/JSON.h"
#include "platform/data/LocalFileSystem.h"
#include "platform/data/PropertyList.h"
#include "platform/http/CurlHTTPClient.h"
#include "platform/system/SystemClock.h"
#include "tools/Arguments.h"
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

std::string bytesOfFile(const std::string& file) {
  Result<std::string> content = readRegularFile(file);
  if (!content) throw CommandError(content.failure().message);
  return std::move(content).value();
}

Source fetch(const Location& location) {
  if (!location.name.starts_with("https://"))
    throw tools::InputError("a storebag is fetched over https, not from " + location.name);
  CurlHTTPClient::Options options;
  if (!location.caFile.empty()) {
    if (const auto fault = faultOfCAFile(location.caFile)) throw CommandError(fault->message);
    options.caFile = location.caFile;
  }
  CurlHTTPClient client(std::make_shared<SystemClock>(), std::move(options));
  HTTPOutcome outcome = performAndWait(client, storebagRequest(location.name, std::nullopt));
  if (!outcome.response) throw UnreachableError(location.name, outcome.error->description);
  return {.name = location.name,
          .bytes = std::move(outcome.response->body),
          .status = outcome.response->status};
}

}  // namespace

Source read(const Location& location) {
  if (location.name.find("://") != std::string::npos) return fetch(location);
  return {.name = location.name, .bytes = bytesOfFile(location.name)};
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

Content contentAt(const Location& location) {
  Source source = read(location);
  if (source.status != 0 && source.status != 200)
    source.name += fmt::format(" (status {})", source.status);
  return contentOf(std::move(source.bytes), source.name);
}

Content contentOfFile(const std::string& file) { return contentOf(bytesOfFile(file), file); }

}  // namespace corvid::storebag
