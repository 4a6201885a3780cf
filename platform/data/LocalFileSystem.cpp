#include "platform/data/LocalFileSystem.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>

namespace corvid {

namespace {

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

Failure failed(const std::string& path) { return {path + ": " + std::strerror(errno), errno}; }

bool isRegular(int descriptor) {
  struct stat info {};
  return ::fstat(descriptor, &info) == 0 && S_ISREG(info.st_mode);
}

bool writeAll(int descriptor, std::string_view bytes) {
  while (!bytes.empty()) {
    const ssize_t written = ::write(descriptor, bytes.data(), bytes.size());
    if (written < 0 && errno == EINTR) continue;
    if (written <= 0) return false;
    bytes.remove_prefix(static_cast<std::size_t>(written));
  }
  return true;
}

TimeValue timeFrom(const statx_timestamp& time) {
  return {time.tv_sec, static_cast<std::int32_t>(time.tv_nsec / 1000)};
}

}  // namespace

Result<std::vector<std::string>> LocalFileSystem::listDirectory(const std::string& path) {
  std::error_code error;
  std::vector<std::string> names;
  for (std::filesystem::directory_iterator entry(path, error), end; !error && entry != end;
       entry.increment(error))
    names.push_back(entry->path().filename().string());
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
  struct statx info {};
  if (::statx(AT_FDCWD, path.c_str(), AT_SYMLINK_NOFOLLOW, STATX_BTIME | STATX_MTIME, &info) != 0)
    return std::nullopt;
  std::optional<TimeValue> date;
  if (info.stx_mask & STATX_MTIME) date = timeFrom(info.stx_mtime);
  if (info.stx_mask & STATX_BTIME) {
    const TimeValue birth = timeFrom(info.stx_btime);
    if (!date || birth.seconds < date->seconds ||
        (birth.seconds == date->seconds && birth.microseconds < date->microseconds))
      date = birth;
  }
  return date;
}

void LocalFileSystem::createFile(const std::string& path) {
  const Descriptor file(
      ::open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600));
}

bool LocalFileSystem::exists(const std::string& path) {
  struct stat info {};
  return ::lstat(path.c_str(), &info) == 0;
}

bool LocalFileSystem::append(const std::string& path, const std::vector<std::string_view>& pieces) {
  const Descriptor file(
      ::open(path.c_str(), O_WRONLY | O_APPEND | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
  if (file.number() < 0 || !isRegular(file.number())) return false;
  return std::all_of(pieces.begin(), pieces.end(),
                     [&](std::string_view piece) { return writeAll(file.number(), piece); });
}

Result<std::string> LocalFileSystem::readFile(const std::string& path, std::size_t limit) {
  const Descriptor file(::open(path.c_str(), O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
  if (file.number() < 0) return failed(path);
  if (!isRegular(file.number())) return Failure{path + ": not a regular file", EINVAL};
  std::string content;
  for (;;) {
    constexpr std::size_t step = 16384;
    const std::size_t had = content.size();
    content.resize(had + std::min(step, limit + 1 - had));
    const ssize_t got = ::read(file.number(), content.data() + had, content.size() - had);
    content.resize(had + static_cast<std::size_t>(std::max<ssize_t>(got, 0)));
    if (got < 0 && errno == EINTR) continue;
    if (got < 0) return failed(path);
    if (got == 0) return content;
    if (content.size() > limit)
      return Failure{path + ": longer than " + std::to_string(limit) + " bytes", EFBIG};
  }
}

void LocalFileSystem::remove(const std::string& path) { ::unlink(path.c_str()); }

}  // namespace corvid
