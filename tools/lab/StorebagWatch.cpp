#include "tools/lab/StorebagWatch.h"

#include <sys/stat.h>

#include <chrono>
#include <optional>
#include <set>

#include "base/Describe.h"
#include "base/Reading.h"

namespace corvid::lab {

namespace {

std::string versionOf(const Dictionary& storebag) {
  const Value* version = storebag.find("version");
  if (!version) return {};
  return version->string() ? *version->string() : description(*version);
}

// The names that the sections of any environment have.
Array backendsOf(const Dictionary& storebag) {
  std::set<std::string> names;
  for (const auto& [environment, section] : storebag) {
    if (!section.dictionary()) continue;
    for (const auto& [name, backend] : *section.dictionary())
      if (backend.dictionary()) names.insert(name);
  }
  return {names.begin(), names.end()};
}

}  // namespace

void StorebagWatch::note(const std::string& name, int status, bool isSpoiled) {
  std::optional<std::string> version;
  if (status == 200 && !isSpoiled) {
    const Result<Value> list = _server.list(name);
    if (list && list.value().dictionary()) version = versionOf(*list.value().dictionary());
  }
  const std::chrono::duration<double> now = std::chrono::system_clock::now().time_since_epoch();
  const MutexLock lock(_mutex);
  Fetches& fetches = _fetches[name];
  ++fetches.count;
  fetches.status = status;
  fetches.time = now.count();
  if (version) fetches.version = *version;
}

Array StorebagWatch::storebags() {
  Array storebags;
  for (const std::string& name : _server.names()) {
    Dictionary bag{{"name", name}};
    const Result<Value> list = _server.list(name);
    if (!list) {
      bag.set("error", list.failure().message);
    } else if (const Dictionary* content = list.value().dictionary()) {
      bag.set("version", versionOf(*content));
      bag.set("backends", backendsOf(*content));
    } else {
      bag.set("error", "the property list is no dictionary");
    }
    struct stat info {};
    if (stat(_server.fileOf(name).c_str(), &info) == 0) bag.set("modified", info.st_mtime);
    const MutexLock lock(_mutex);
    if (const auto fetched = _fetches.find(name); fetched != _fetches.end()) {
      const Fetches& fetches = fetched->second;
      bag.set("fetches", fetches.count);
      bag.set("lastFetch", fetches.time);
      bag.set("lastStatus", fetches.status);
      if (!fetches.version.empty()) bag.set("inForce", fetches.version);
    }
    storebags.emplace_back(std::move(bag));
  }
  return storebags;
}

}  // namespace corvid::lab
