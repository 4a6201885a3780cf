#include "platform/data/LocalFileSystem.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <system_error>

#include "base/Descriptor.h"
#include "platform/data/RegularFile.h"

namespace corvid {

namespace {

TimeValue timeValue(const statx_timestamp& time) {
  return {time.tv_sec, static_cast<std::int32_t>(time.tv_nsec / 1000)};
}

bool isEarlier(const TimeValue& a, const TimeValue& b) {
  return a.seconds != b.seconds ? a.seconds < b.seconds : a.microseconds < b.microseconds;
}

}  // namespace

Result<std::vector<std::string>> LocalFileSystem::listDirectory(const std::string& path) {
  std::error_code error;
  std::vector<std::string> names;
  std::filesystem::directory_iterator entry(path, error);
  for (; !error && entry != std::filesystem::directory_iterator(); entry.increment(error))
    names.push_back(entry->path().filename());
  if (error) return Failure{error.message(), error.value()};
  std::sort(names.begin(), names.end());
  return names;
}

bool LocalFileSystem::createDirectories(const std::string& path) {
  std::error_code error;
  std::filesystem::create_directories(path, error);
  return std::filesystem::is_directory(path, error);
}

std::optional<TimeValue> LocalFileSystem::creationDate(const std::string& path) {
  struct statx status {};
  if (statx(AT_FDCWD, path.c_str(), AT_SYMLINK_NOFOLLOW, STATX_BTIME | STATX_MTIME, &status) != 0)
    return std::nullopt;
  std::optional<TimeValue> earliest;
  if (status.stx_mask & STATX_MTIME) earliest = timeValue(status.stx_mtime);
  if (status.stx_mask & STATX_BTIME) {
    const TimeValue birth = timeValue(status.stx_btime);
    if (!earliest || isEarlier(birth, *earliest)) earliest = birth;
  }
  return earliest;
}

std::optional<TimeValue> LocalFileSystem::changeDate(const std::string& directory) {
  struct statx status {};
  if (statx(AT_FDCWD, directory.c_str(), 0, STATX_CTIME, &status) != 0) return std::nullopt;
  return timeValue(status.stx_ctime);
}

std::size_t LocalFileSystem::size(const std::string& path) {
  struct stat status {};
  return lstat(path.c_str(), &status) == 0 ? static_cast<std::size_t>(status.st_size) : 0;
}

void LocalFileSystem::createFile(const std::string& path) {
  const Descriptor file(open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600));
}

bool LocalFileSystem::exists(const std::string& path) {
  std::error_code error;
  return std::filesystem::exists(path, error);
}

bool LocalFileSystem::append(const std::string& path, const std::vector<std::string_view>& pieces) {
  const Descriptor file(
      open(path.c_str(), O_WRONLY | O_APPEND | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
  struct stat status {};
  if (!file || fstat(file.get(), &status) != 0 || !S_ISREG(status.st_mode)) return false;
  return std::all_of(pieces.begin(), pieces.end(),
                     [&](std::string_view piece) { return writeFully(file.get(), piece); });
}

Result<std::string> LocalFileSystem::readFile(const std::string& path, std::size_t limit) {
  return readRegularFile(path, limit);
}

void LocalFileSystem::remove(const std::string& path) { unlink(path.c_str()); }

}  // namespace corvid
