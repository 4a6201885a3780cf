#include "tools/lab/StorebagServer.h"

#include <fmt/format.h>
#include <sys/stat.h>

#include <algorithm>
#include <ctime>
#include <filesystem>
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

bool isStorebagName(std::string_view name) {
  return !name.empty() && name.find('/') == std::string_view::npos && !name.starts_with('.');
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

std::string StorebagServer::nameIn(std::string_view target) {
  for (const std::string_view folder : {"/bags/birch/", "/storebags/birch/"}) {
    if (!target.starts_with(folder)) continue;
    target.remove_prefix(folder.size());
    const std::string_view name = target.substr(0, target.find('?'));
    return isStorebagName(name) ? std::string(name) : std::string();
  }
  return {};
}

std::vector<std::string> StorebagServer::names() const {
  std::vector<std::string> names;
  std::error_code error;
  for (const auto& file : std::filesystem::directory_iterator(_folder, error))
    if (file.path().extension() == ".plist" && isStorebagName(file.path().stem().native()))
      names.push_back(file.path().stem());
  std::ranges::sort(names);
  return names;
}

Result<Value> StorebagServer::list(const std::string& name) const {
  const std::string path = fileOf(name);
  if (!isStorebagName(name) || !std::filesystem::exists(path))
    return Failure{"there is no storebag " + name};
  std::ifstream file(path, std::ios::binary);
  const std::string bytes((std::istreambuf_iterator<char>(file)), {});
  const Result<Value> list = parsePropertyList(bytes);
  if (!list) return Failure{path + ": " + list.failure().message};
  return tools::replaced(list.value(), [&](const Value& value) -> std::optional<Value> {
    const std::string* text = value.string();
    if (!text || !text->starts_with("${") || !text->ends_with('}')) return std::nullopt;
    return _placeholder(std::string_view(*text).substr(2, text->size() - 3));
  });
}

Answer StorebagServer::answer(const Request& request) const {
  if (request.method != "GET") return plain(405, "storebags are read with GET\n");
  const std::string name = nameIn(request.target);
  if (name.empty()) return plain(404, "no storebag is published here\n");
  struct stat info {};
  if (stat(fileOf(name).c_str(), &info) != 0)
    return plain(404, "there is no storebag " + name + "\n");

  const std::string modified = httpDate(info.st_mtime);
  HTTPHeaders headers{{"Last-Modified", modified},
                      {"Cache-Control", fmt::format("max-age={}", _maxAge)}};
  if (request.header("If-Modified-Since") == modified)
    return {.status = 304, .headers = std::move(headers)};

  const Result<Value> bag = list(name);
  if (!bag) return plain(500, bag.failure().message + "\n");
  headers.emplace_back("Content-Type", "application/x-plist");
  return {.status = 200,
          .headers = std::move(headers),
          .body = _signer.envelope(writeXMLPropertyList(bag.value()))};
}

}  // namespace corvid::lab
