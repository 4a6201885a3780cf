#include "platform/data/FilePreferences.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/file.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <filesystem>
#include <system_error>
#include <utility>

#include "base/Descriptor.h"
#include "base/Log.h"
#include "base/Text.h"
#include "platform/data/PropertyList.h"

namespace corvid {

namespace {

constexpr std::size_t longestSuiteName = 200;  // leaves room for what is put behind it

bool isNamedSuite(std::string_view name) {
  if (FilePreferences::isSuite(name)) return true;
  logError("FilePreferences: \"{}\" is no name of a preference suite", name);
  return false;
}

void createFolder(const std::string& folder) {
  std::error_code ignored;  // what is missing then shows in the next step
  std::filesystem::create_directories(std::filesystem::path(folder).parent_path(), ignored);
  mkdir(folder.c_str(), 0700);
}

// Keeps other writers, of this process and others, from the folder until the descriptor is closed.
Result<Descriptor> lockFolder(const std::string& folder) {
  const auto failure = [] { return Failure{std::strerror(errno), errno}; };
  Descriptor lock(open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (!lock) return failure();
  while (flock(lock.get(), LOCK_EX) != 0)
    if (errno != EINTR) return failure();
  return lock;
}

}  // namespace

bool FilePreferences::isSuite(std::string_view name) {
  const auto isAllowed = [](char c) {
    return isASCIILetterOrDigit(c) || c == '-' || c == '_' || c == '.';
  };
  return !name.empty() && name.size() <= longestSuiteName && name.front() != '.' &&
         std::ranges::all_of(name, isAllowed);
}

std::optional<Value> FilePreferences::value(std::string_view suite, std::string_view key) {
  if (!isNamedSuite(suite)) return std::nullopt;
  const MutexLock lock(_mutex);
  const Value* found = current(suite).entries.find(key);
  return found ? std::optional(*found) : std::nullopt;
}

std::vector<std::string> FilePreferences::keys(std::string_view suite) {
  if (!isNamedSuite(suite)) return {};
  const MutexLock lock(_mutex);
  std::vector<std::string> keys;
  for (const auto& entry : current(suite).entries) keys.push_back(entry.key);
  return keys;
}

bool FilePreferences::setValue(std::string_view suite, std::string_view key, Value value) {
  return change(suite, [&](Dictionary& entries) {
    const Value* old = entries.find(key);
    if (old != nullptr && *old == value) return false;
    entries.set(std::string(key), std::move(value));
    return true;
  });
}

bool FilePreferences::removeValue(std::string_view suite, std::string_view key) {
  return change(suite, [&](Dictionary& entries) { return entries.erase(key); });
}

// `apply` changes the entries and says whether it did.
template <class Change>
bool FilePreferences::change(std::string_view suite, Change apply) {
  if (!isNamedSuite(suite)) return false;
  const MutexLock lock(_mutex);
  createFolder(_folder);
  const Result<Descriptor> lockedFolder = lockFolder(_folder);
  if (!lockedFolder) {
    complain(fmt::format("FilePreferences: cannot lock {}: {}", _folder,
                         lockedFolder.failure().message));
    return false;
  }
  const Suite& before = current(suite, true);
  if (!before.isUsable) {
    complain(fmt::format("FilePreferences: {} is left as it is, and changes of it are lost",
                         pathOf(suite)));
    return false;
  }
  Dictionary entries = before.entries;
  return !apply(entries) || write(suite, entries);
}

bool FilePreferences::write(std::string_view suite, const Dictionary& entries) {
  const std::string path = pathOf(suite);
  const std::string text = writeXMLPropertyList(entries);
  Result<Dictionary> readBack = parseDictionary(text);
  if (!readBack) {
    logError("FilePreferences: a change of {} is refused: {}", path, readBack.failure().message);
    return false;
  }
  if (const std::optional<Failure> failure = replaceRegularFile(path, text)) {
    complain(fmt::format("FilePreferences: a change of {} is lost: {}", path, failure->message));
    return false;
  }
  _complaint.clear();
  _suites.find(suite)->second = {FileStamp::of(path), true, std::move(readBack).value()};
  return true;
}

void FilePreferences::complain(std::string complaint) {
  if (complaint == _complaint) return;
  logError("{}", complaint);
  _complaint = std::move(complaint);
}

const FilePreferences::Suite& FilePreferences::current(std::string_view name, bool isLocked) {
  const std::string path = pathOf(name);
  Suite& suite = _suites[std::string(name)];
  // Taken before the file is read: one that changes meanwhile is read again next time.
  const FileStamp stamp = FileStamp::of(path);
  const bool isKnown = suite.stamp == stamp && !(suite.isUsable && isFresh(stamp));
  if (isKnown) return suite;
  suite = {stamp, true, {}};
  load(suite, path, isLocked);
  return suite;
}

void FilePreferences::load(Suite& suite, const std::string& path, bool isLocked) {
  const Result<std::string> bytes = readRegularFile(path);
  if (!bytes) {
    if (bytes.failure().code == ENOENT) return;
    suite.isUsable = false;
    logError("FilePreferences: cannot read {}; its preferences count as absent",
             bytes.failure().message);
    return;
  }
  Result<Dictionary> entries = parseDictionary(bytes.value());
  if (entries) {
    suite.entries = std::move(entries).value();
    return;
  }
  if (!isLocked) {
    // Another process may be putting a sound file in its place: look again when none can.
    if (const Result<Descriptor> lock = lockFolder(_folder)) return load(suite, path, true);
  }
  setAside(suite, path, entries.failure().message);
}

void FilePreferences::setAside(Suite& suite, const std::string& path, const std::string& reason) {
  std::string aside;
  for (int n = 1; aside.empty() || FileStamp::of(aside).error != ENOENT; ++n)
    aside = fmt::format("{}.damaged-{}", path, n);
  if (rename(path.c_str(), aside.c_str()) == 0) {
    suite.stamp = FileStamp::of(path);
    logError(
        "FilePreferences: {} is damaged ({}); it is kept as {}, and its preferences start anew",
        path, reason, aside);
    return;
  }
  suite.isUsable = false;
  logError(
      "FilePreferences: {} is damaged ({}) and cannot be set aside ({}); its preferences count as "
      "absent",
      path, reason, std::strerror(errno));
}

bool FilePreferences::isFresh(const FileStamp& stamp) {
  // Times of files move in steps of some milliseconds.
  constexpr std::chrono::nanoseconds step = std::chrono::milliseconds(100);
  const auto now = std::chrono::system_clock::now().time_since_epoch();
  return stamp.error == 0 && std::chrono::nanoseconds(stamp.changed) + step > now;
}

std::string FilePreferences::pathOf(std::string_view suite) const {
  return fmt::format("{}/{}.plist", _folder, suite);
}

}  // namespace corvid
