#include "tools/lab/StorebagServer.h"

#include <fmt/format.h>
#include <sys/stat.h>

#include <ctime>
#include <fstream>
#include <iterator>

#include "platform/data/PropertyList.h"
#include "tools/JSONValues.h"

namespace corvid::lab {

namespace {

std::string httpDate(std::time_t time) {
  std::tm utc{};
  gmtime_r(&time, &utc);
  char text[64];
  std::strftime(text, sizeof text, "%a, %d %b %Y %H:%M:%S GMT", &utc);
  return text;
}

// The storebag name of a request target; empty where it is none.
std::string storebagName(std::string_view target) {
  for (const std::string_view folder : {"/bags/birch/", "/storebags/birch/"}) {
    if (!target.starts_with(folder)) continue;
    target.remove_prefix(folder.size());
    const std::string_view name = target.substr(0, target.find('?'));
    if (name.empty() || name.find('/') != std::string_view::npos || name.starts_with('.'))
      return {};
    return std::string(name);
  }
  return {};
}

Answer plain(int status, std::string text) {
  return {.status = status, .headers = {{"Content-Type", "text/plain"}}, .body = std::move(text)};
}

}  // namespace

StorebagServer::StorebagServer(std::string folder, const StorebagSigner& signer, int maxAge,
                               Placeholder placeholder)
    : _folder(std::move(folder)),
      _signer(signer),
      _maxAge(maxAge),
      _placeholder(std::move(placeholder)) {}

Answer StorebagServer::answer(const Request& request) const {
  if (request.method != "GET") return plain(405, "storebags are read with GET\n");
  const std::string name = storebagName(request.target);
  if (name.empty()) return plain(404, "no storebag is published here\n");
  const std::string path = _folder + "/" + name + ".plist";
  struct stat info {};
  if (stat(path.c_str(), &info) != 0) return plain(404, "there is no storebag " + name + "\n");

  const std::string modified = httpDate(info.st_mtime);
  HTTPHeaders headers{{"Last-Modified", modified},
                      {"Cache-Control", fmt::format("max-age={}", _maxAge)}};
  if (request.header("If-Modified-Since") == modified)
    return {.status = 304, .headers = std::move(headers)};

  std::ifstream file(path, std::ios::binary);
  const std::string bytes((std::istreambuf_iterator<char>(file)), {});
  const Result<Value> list = parsePropertyList(bytes);
  if (!list) return plain(500, path + ": " + list.failure().message + "\n");
  const auto filledIn = [&](const Value& value) -> std::optional<Value> {
    const std::string* text = value.string();
    if (!text || !text->starts_with("${") || !text->ends_with('}')) return std::nullopt;
    return _placeholder(std::string_view(*text).substr(2, text->size() - 3));
  };
  headers.emplace_back("Content-Type", "application/x-plist");
  return {.status = 200,
          .headers = std::move(headers),
          .body = _signer.envelope(writeXMLPropertyList(tools::replaced(list.value(), filledIn)))};
}

}  // namespace corvid::lab
