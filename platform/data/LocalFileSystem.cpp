#include "platform/data/LocalFileSystem.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <system_error>

#include "base/Descriptor.h"

namespace corvid {

namespace {

Failure systemFailure(std::string_view doing, const std::string& path) {
  const int error = errno;
  return {fmt::format("cannot {} {}: {}", doing, path, std::strerror(error)), error};
}

void giveToOwnerOf(int folder, int file) {
  struct stat status {};
  if (geteuid() != 0 || fstat(folder, &status) != 0 || status.st_uid == 0) return;
  // Without it the file is as good, only for its writer alone.
  if (fchown(file, status.st_uid, status.st_gid) != 0) return;
}

// All of it; false, with errno set, when not all could be written.
bool writeFully(int descriptor, std::string_view content) {
  while (!content.empty()) {
    const ssize_t written = write(descriptor, content.data(), content.size());
    if (written < 0 && errno == EINTR) continue;
    if (written < 0) return false;
    content.remove_prefix(static_cast<std::size_t>(written));
  }
  return true;
}

std::string folderOf(const std::string& path) {
  const std::string folder = std::filesystem::path(path).parent_path();
  return folder.empty() ? "." : folder;
}

Descriptor openFolder(const std::string& path) {
  return Descriptor(open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
}

// Leaves nothing of it behind where it fails, and what stood there as it is.
std::optional<Failure> writeNewFile(const std::string& path, int folder, std::string_view content,
                                    unsigned mode) {
  const Descriptor file(
      open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, mode));
  if (!file) return systemFailure("create", path);
  giveToOwnerOf(folder, file.get());
  if (writeFully(file.get(), content) && fsync(file.get()) == 0) return std::nullopt;
  const Failure failure = systemFailure("write", path);
  unlink(path.c_str());
  return failure;
}

// A regular file that is no symbolic link, with its status; none, with errno set, where it is not.
Descriptor openRegularFile(const std::string& path, int flags, struct stat& status) {
  Descriptor file(open(path.c_str(), flags | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
  if (!file || fstat(file.get(), &status) != 0) return Descriptor();
  if (S_ISREG(status.st_mode)) return file;
  errno = EINVAL;
  return Descriptor();
}

class UnlinkedFile final : public UnnamedFile {
 public:
  explicit UnlinkedFile(Descriptor file) : _file(std::move(file)) {}

  std::optional<Failure> append(std::string_view bytes) override {
    if (!writeFully(_file.get(), bytes)) return systemFailure("write", "a file without a name");
    _size += bytes.size();
    return std::nullopt;
  }
  std::size_t size() const override { return _size; }
  std::optional<std::size_t> read(std::size_t offset, std::span<char> room) const override {
    const ssize_t count = pread(_file.get(), room.data(), room.size(), static_cast<off_t>(offset));
    if (count < 0) return std::nullopt;
    return static_cast<std::size_t>(count);
  }

 private:
  const Descriptor _file;
  std::size_t _size = 0;
};

// Of one file, towards its beginning. False, with errno set, when not all could be moved.
bool moveBytes(int descriptor, std::size_t from, std::size_t to, std::size_t count) {
  if (from == to) return true;
  std::string buffer(std::min(count, std::size_t{256} << 10), '\0');
  while (count > 0) {
    const ssize_t read =
        pread(descriptor, buffer.data(), std::min(count, buffer.size()), static_cast<off_t>(from));
    if (read < 0 && errno == EINTR) continue;
    if (read == 0) errno = EIO;
    if (read <= 0) return false;
    for (ssize_t written = 0; written < read;) {
      const ssize_t more =
          pwrite(descriptor, buffer.data() + written, static_cast<std::size_t>(read - written),
                 static_cast<off_t>(to) + written);
      if (more < 0 && errno != EINTR) return false;
      if (more > 0) written += more;
    }
    const auto moved = static_cast<std::size_t>(read);
    from += moved;
    to += moved;
    count -= moved;
  }
  return true;
}

std::int64_t nanoseconds(const timespec& time) {
  return std::int64_t{time.tv_sec} * 1'000'000'000 + time.tv_nsec;
}

TimeValue timeValue(const statx_timestamp& time) {
  return {time.tv_sec, static_cast<std::int32_t>(time.tv_nsec / 1000)};
}

}  // namespace

Result<std::string> readRegularFile(const std::string& path, std::size_t limit) {
  const auto failure = [&](int error) {
    return Failure{fmt::format("{}: {}", path, std::strerror(error)), error};
  };
  const Descriptor file(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY));
  if (!file) return failure(errno);
  struct stat status {};
  if (fstat(file.get(), &status) != 0) return failure(errno);
  if (S_ISDIR(status.st_mode)) return failure(EISDIR);
  if (!S_ISREG(status.st_mode)) return Failure{fmt::format("{}: Not a regular file", path), EINVAL};

  // The size is no help: the kernel's own files say 0 or a page.
  constexpr std::size_t leastPiece = 4096;
  std::string content;
  for (std::size_t size = 0;;) {
    content.resize(size + std::max(size, leastPiece));
    const ssize_t count = read(file.get(), content.data() + size, content.size() - size);
    if (count < 0 && errno == EINTR) continue;
    if (count < 0) return failure(errno);
    content.resize(size += static_cast<std::size_t>(count));
    if (count == 0) return content;
    if (size > limit) return Failure{fmt::format("{}: Longer than {} bytes", path, limit), EFBIG};
  }
}

std::string whatFailed(const Failure& failure, std::string_view path) {
  std::string_view what = failure.message;
  if (what.starts_with(path)) what.remove_prefix(path.size());
  what.remove_prefix(std::min(what.find_first_not_of(": "), what.size()));
  return what.empty() ? "cannot be used" : std::string(what);
}

std::optional<Failure> replaceRegularFile(const std::string& path, std::string_view content,
                                          unsigned mode) {
  const std::string folderPath = folderOf(path);
  const Descriptor folder = openFolder(folderPath);
  if (!folder) return systemFailure("open", folderPath);
  const std::string newPath = path + ".new";
  if (unlink(newPath.c_str()) != 0 && errno != ENOENT) return systemFailure("remove", newPath);
  if (auto failure = writeNewFile(newPath, folder.get(), content, mode)) return failure;
  if (rename(newPath.c_str(), path.c_str()) != 0) {
    const Failure failure = systemFailure("replace", path);
    unlink(newPath.c_str());
    return failure;
  }
  if (fsync(folder.get()) != 0) return systemFailure("write", folderPath);
  return std::nullopt;
}

std::optional<Failure> createRegularFile(const std::string& path, std::string_view content,
                                         unsigned mode) {
  const std::string folderPath = folderOf(path);
  const Descriptor folder = openFolder(folderPath);
  if (!folder) return systemFailure("open", folderPath);
  if (auto failure = writeNewFile(path, folder.get(), content, mode)) return failure;
  if (fsync(folder.get()) != 0) return systemFailure("write", folderPath);
  return std::nullopt;
}

Result<std::vector<std::string>> propertyListsIn(const std::string& folder) {
  Result<std::vector<std::string>> names = LocalFileSystem().listDirectory(folder);
  if (!names) return names;
  std::vector<std::string> paths;
  for (const std::string& name : names.value())
    if (name.ends_with(".plist") && !name.starts_with('.')) paths.push_back(folder + "/" + name);
  return paths;
}

FileStamp FileStamp::of(const std::string& path) {
  struct stat status {};
  if (stat(path.c_str(), &status) != 0) return {.error = errno};
  return {.device = status.st_dev,
          .inode = status.st_ino,
          .size = status.st_size,
          .modified = nanoseconds(status.st_mtim),
          .changed = nanoseconds(status.st_ctim)};
}

bool FileStamp::isSameContent(const FileStamp& other) const {
  return error == 0 && other.error == 0 && device == other.device && inode == other.inode &&
         size == other.size && modified == other.modified;
}

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
    earliest = std::ranges::min(birth, earliest.value_or(birth), {}, &TimeValue::asDouble);
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

std::optional<Failure> LocalFileSystem::append(const std::string& path,
                                               const std::vector<std::string_view>& pieces) {
  struct stat status {};
  const Descriptor file = openRegularFile(path, O_WRONLY | O_APPEND, status);
  if (!file) return systemFailure("open", path);
  const auto write = [&](std::string_view piece) { return writeFully(file.get(), piece); };
  if (std::ranges::all_of(pieces, write)) return std::nullopt;
  Failure failure = systemFailure("write", path);
  // Without it a piece of a line stays.
  if (ftruncate(file.get(), status.st_size) != 0) failure.message += ", nor take back a part";
  return failure;
}

std::size_t LocalFileSystem::endOfLine(const std::string& path, std::size_t from,
                                       std::size_t latest) {
  constexpr std::size_t farthest = std::size_t{64} << 10;
  struct stat status {};
  const Descriptor file = openRegularFile(path, O_RDONLY, status);
  if (!file || from == 0 || from > latest) return from;
  std::string bytes(std::min(latest - from, farthest) + 1, '\0');
  const ssize_t count = pread(file.get(), bytes.data(), bytes.size(), static_cast<off_t>(from - 1));
  bytes.resize(count > 0 ? static_cast<std::size_t>(count) : 0);
  const std::size_t end = bytes.find('\n');
  return end == bytes.npos ? from : from + end;
}

std::optional<Failure> LocalFileSystem::removeRanges(const std::string& path,
                                                     const std::vector<ByteRange>& ranges) {
  struct stat status {};
  const Descriptor file = openRegularFile(path, O_RDWR, status);
  if (!file) return systemFailure("open", path);
  std::size_t kept = 0;
  std::size_t next = 0;
  const auto keepUntil = [&](std::size_t end) {
    if (end <= next) return true;
    const bool moved = moveBytes(file.get(), next, kept, end - next);
    kept += end - next;
    return moved;
  };
  for (const ByteRange& range : ranges) {
    if (!keepUntil(range.begin)) return systemFailure("move bytes of", path);
    next = range.end;
  }
  if (!keepUntil(static_cast<std::size_t>(status.st_size)) ||
      ftruncate(file.get(), static_cast<off_t>(kept)) != 0)
    return systemFailure("shorten", path);
  return std::nullopt;
}

Result<std::string> LocalFileSystem::readFile(const std::string& path, std::size_t limit) {
  return readRegularFile(path, limit);
}

Result<std::shared_ptr<UnnamedFile>> LocalFileSystem::createUnnamedFile(const std::string& folder) {
  std::string path = folder + "/.unnamed-XXXXXX";
  Descriptor file(mkostemp(path.data(), O_CLOEXEC));
  if (!file) return systemFailure("create", path);
  if (unlink(path.c_str()) != 0) return systemFailure("remove", path);
  return std::shared_ptr<UnnamedFile>(std::make_shared<UnlinkedFile>(std::move(file)));
}

void LocalFileSystem::remove(const std::string& path) { unlink(path.c_str()); }

}  // namespace corvid
