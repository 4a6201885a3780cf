#include "tests/fakes/FakeFileSystem.h"

#include <cerrno>
#include <functional>

namespace corvid {

Result<std::vector<std::string>> FakeFileSystem::listDirectory(const std::string& path) {
  std::lock_guard lock(_mutex);
  ++listings;
  if (listFailure) return *listFailure;
  if (!directories.contains(path)) return Failure{"No such file or directory", ENOENT};
  return namesIn(path);
}

std::vector<std::string> FakeFileSystem::namesIn(const std::string& directory) const {
  std::vector<std::string> names;
  const std::string prefix = directory + "/";
  for (const auto& [file, content] : files)
    if (file.starts_with(prefix) && file.find('/', prefix.size()) == std::string::npos)
      names.push_back(file.substr(prefix.size()));
  return names;
}

std::optional<TimeValue> FakeFileSystem::changeDate(const std::string& directory) {
  std::lock_guard lock(_mutex);
  if (!directories.contains(directory)) return std::nullopt;
  std::string together;
  for (const std::string& name : namesIn(directory)) together += name + "/";
  return TimeValue{static_cast<std::int64_t>(std::hash<std::string>()(together) % 1'000'000'000),
                   0};
}

bool FakeFileSystem::createDirectories(const std::string& path) {
  std::lock_guard lock(_mutex);
  if (failCreateDirectories) return false;
  directories.insert(path);
  return true;
}

std::optional<TimeValue> FakeFileSystem::creationDate(const std::string& path) {
  std::lock_guard lock(_mutex);
  const auto found = files.find(path);
  return found == files.end() ? std::nullopt : found->second.created;
}

std::size_t FakeFileSystem::size(const std::string& path) {
  std::lock_guard lock(_mutex);
  const auto found = files.find(path);
  return found == files.end() ? 0 : found->second.content.size();
}

void FakeFileSystem::createFile(const std::string& path) {
  std::lock_guard lock(_mutex);
  const std::string folder = path.substr(0, path.rfind('/'));
  if (failCreateFile || !directories.contains(folder) || files.contains(path)) return;
  files[path] = {"", _clock->now()};
}

bool FakeFileSystem::exists(const std::string& path) {
  std::lock_guard lock(_mutex);
  return files.contains(path) || directories.contains(path);
}

bool FakeFileSystem::append(const std::string& path, const std::vector<std::string_view>& pieces) {
  std::lock_guard lock(_mutex);
  const auto found = files.find(path);
  if (found == files.end()) return false;
  int written = 0;
  for (const std::string_view piece : pieces) {
    if (failAppendAfter >= 0 && written >= failAppendAfter) return false;
    found->second.content += piece;
    ++written;
  }
  return true;
}

Result<std::string> FakeFileSystem::readFile(const std::string& path, std::size_t limit) {
  std::lock_guard lock(_mutex);
  const auto found = files.find(path);
  if (found == files.end()) return Failure{"No such file or directory", ENOENT};
  if (found->second.content.size() > limit) return Failure{"File too large", EFBIG};
  return found->second.content;
}

void FakeFileSystem::remove(const std::string& path) {
  std::lock_guard lock(_mutex);
  files.erase(path);
}

}  // namespace corvid
