#include "tests/fakes/FakeFileSystem.h"

#include <cerrno>
#include <cstring>
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

std::optional<Failure> FakeFileSystem::append(const std::string& path,
                                              const std::vector<std::string_view>& pieces) {
  std::lock_guard lock(_mutex);
  const auto found = files.find(path);
  if (found == files.end()) return Failure{"No such file or directory", ENOENT};
  std::string& content = found->second.content;
  const std::size_t before = content.size();
  int written = 0;
  for (const std::string_view piece : pieces) {
    if (failAppendAfter >= 0 && written >= failAppendAfter) {
      content.resize(before);
      return Failure{std::strerror(appendError), appendError};
    }
    content += piece;
    ++written;
  }
  return std::nullopt;
}

std::size_t FakeFileSystem::endOfLine(const std::string& path, std::size_t from,
                                      std::size_t latest) {
  std::lock_guard lock(_mutex);
  const std::size_t end = files.at(path).content.find('\n', from - 1);
  return end < latest ? end + 1 : from;
}

std::optional<Failure> FakeFileSystem::removeRanges(const std::string& path,
                                                    const std::vector<ByteRange>& ranges) {
  std::lock_guard lock(_mutex);
  if (removeRangesFailure) return removeRangesFailure;
  std::string& content = files.at(path).content;
  for (auto range = ranges.rbegin(); range != ranges.rend(); ++range)
    content.erase(range->begin, range->end - range->begin);
  return std::nullopt;
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

namespace {

class FakeUnnamedFile final : public UnnamedFile {
 public:
  explicit FakeUnnamedFile(std::size_t capacity) : _capacity(capacity) {}

  std::optional<Failure> append(std::string_view bytes) override {
    if (_content.size() + bytes.size() > _capacity)
      return Failure{"No space left on device", ENOSPC};
    _content += bytes;
    return std::nullopt;
  }
  std::size_t size() const override { return _content.size(); }
  std::optional<std::size_t> read(std::size_t offset, std::span<char> room) const override {
    return _content.copy(room.data(), room.size(), offset);
  }

 private:
  const std::size_t _capacity;
  std::string _content;
};

}  // namespace

Result<std::shared_ptr<UnnamedFile>> FakeFileSystem::createUnnamedFile(const std::string&) {
  std::lock_guard lock(_mutex);
  if (createUnnamedFailure) return *createUnnamedFailure;
  return std::shared_ptr<UnnamedFile>(std::make_shared<FakeUnnamedFile>(unnamedCapacity));
}

}  // namespace corvid
