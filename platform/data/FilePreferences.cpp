#include "platform/data/FilePreferences.h"

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>

#include "platform/base/Log.h"
#include "platform/data/LocalFileSystem.h"
#include "platform/data/PropertyList.h"

namespace corvid {

namespace {

constexpr std::size_t suiteLimit = std::size_t{1} << 20;

class Descriptor {
 public:
  explicit Descriptor(int number) : _number(number) {}
  ~Descriptor() {
    if (_number >= 0) ::close(_number);
  }
  Descriptor(const Descriptor&) = delete;
  Descriptor& operator=(const Descriptor&) = delete;
  int number() const { return _number; }

 private:
  const int _number;
};

bool isPlainName(std::string_view suite) {
  return !suite.empty() && suite.size() < 200 && suite.front() != '.' &&
         suite.find('/') == std::string_view::npos && suite.find('\0') == std::string_view::npos;
}

bool looksTheSame(const struct stat& a, const struct stat& b) {
  return a.st_ino == b.st_ino && a.st_size == b.st_size && a.st_mtim.tv_sec == b.st_mtim.tv_sec &&
         a.st_mtim.tv_nsec == b.st_mtim.tv_nsec;
}

bool writeDurably(const std::string& path, const std::string& bytes) {
  const Descriptor file(
      ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW | O_CLOEXEC, 0600));
  if (file.number() < 0) return false;
  std::string_view rest = bytes;
  while (!rest.empty()) {
    const ssize_t written = ::write(file.number(), rest.data(), rest.size());
    if (written < 0 && errno == EINTR) continue;
    if (written <= 0) return false;
    rest.remove_prefix(static_cast<std::size_t>(written));
  }
  return ::fsync(file.number()) == 0;
}

}  // namespace

std::string FilePreferences::pathOf(std::string_view suite) const {
  return _folder + "/" + std::string(suite) + ".plist";
}

Dictionary FilePreferences::load(const std::string& path) {
  const Result<std::string> bytes = LocalFileSystem().readFile(path, suiteLimit);
  if (!bytes && bytes.failure().code == ENOENT) return {};
  std::string reason;
  if (!bytes) {
    reason = bytes.failure().message;
  } else {
    Result<Value> list = parsePropertyList(bytes.value());
    if (list && list.value().dictionary()) return *list.value().dictionary();
    reason = list ? "the property list is no dictionary" : list.failure().message;
  }
  for (int number = 1; number < 1000; ++number) {
    const std::string aside = path + ".damaged-" + std::to_string(number);
    if (LocalFileSystem().exists(aside)) continue;
    const bool moved = std::rename(path.c_str(), aside.c_str()) == 0;
    logError("FilePreferences: {} is damaged ({}); {}, the preferences count as empty", path, reason,
             moved ? "it is kept as " + aside : "it cannot be set aside");
    break;
  }
  return {};
}

const Dictionary* FilePreferences::read(std::string_view suite) {
  if (!isPlainName(suite)) {
    logError("FilePreferences: \"{}\" is no name of a suite; it holds nothing", suite);
    return nullptr;
  }
  const std::string path = pathOf(suite);
  struct stat now {};
  const bool there = ::stat(path.c_str(), &now) == 0;
  const auto known = _suites.find(suite);
  if (known != _suites.end() && (there ? looksTheSame(known->second.seen, now)
                                       : known->second.seen.st_ino == 0))
    return &known->second.values;
  if (!there) now = {};
  Dictionary values = there ? load(path) : Dictionary();
  return &_suites.insert_or_assign(std::string(suite), Suite{now, std::move(values)})
              .first->second.values;
}

bool FilePreferences::write(const std::string& path, const Dictionary& values) {
  const std::string beside = path + ".new";
  if (!writeDurably(beside, writeXMLPropertyList(Value(values))) ||
      std::rename(beside.c_str(), path.c_str()) != 0) {
    logError("FilePreferences: {} cannot be written ({}); the change is lost", path,
             std::strerror(errno));
    ::unlink(beside.c_str());
    return false;
  }
  const Descriptor folder(::open(_folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (folder.number() >= 0) ::fsync(folder.number());
  return true;
}

template <class Change>
bool FilePreferences::change(std::string_view suite, Change change) {
  const MutexLock lock(_mutex);
  if (!isPlainName(suite)) return read(suite) != nullptr;
  std::error_code ignored;
  std::filesystem::create_directories(_folder, ignored);
  // Other processes change the same files; the lock goes with the descriptor.
  const Descriptor guard(
      ::open((_folder + "/.lock").c_str(), O_RDWR | O_CREAT | O_NOFOLLOW | O_CLOEXEC, 0600));
  if (guard.number() < 0 || ::flock(guard.number(), LOCK_EX) != 0) {
    logError("FilePreferences: {} cannot be locked ({}); the change is lost", _folder,
             std::strerror(errno));
    return false;
  }
  Dictionary values = *read(suite);
  change(values);
  return write(pathOf(suite), values);
}

std::optional<Value> FilePreferences::value(std::string_view suite, std::string_view key) {
  const MutexLock lock(_mutex);
  const Dictionary* values = read(suite);
  const Value* found = values ? values->find(key) : nullptr;
  return found ? std::optional(*found) : std::nullopt;
}

bool FilePreferences::setValue(std::string_view suite, std::string_view key, Value value) {
  return change(suite, [&](Dictionary& values) { values.set(std::string(key), std::move(value)); });
}

bool FilePreferences::removeValue(std::string_view suite, std::string_view key) {
  return change(suite, [&](Dictionary& values) { values.erase(key); });
}

std::vector<std::string> FilePreferences::keys(std::string_view suite) {
  const MutexLock lock(_mutex);
  std::vector<std::string> keys;
  if (const Dictionary* values = read(suite))
    for (const auto& entry : *values) keys.push_back(entry.key);
  return keys;
}

}  // namespace corvid
