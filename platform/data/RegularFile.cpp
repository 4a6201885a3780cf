#include "platform/data/RegularFile.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>

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

std::optional<Failure> writeNewFile(const std::string& path, int folder, std::string_view content) {
  if (unlink(path.c_str()) != 0 && errno != ENOENT) return systemFailure("remove", path);
  const Descriptor file(
      open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600));
  if (!file) return systemFailure("create", path);
  giveToOwnerOf(folder, file.get());
  if (!writeFully(file.get(), content) || fsync(file.get()) != 0)
    return systemFailure("write", path);
  return std::nullopt;
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
  std::string content;
  for (;;) {
    char buffer[16384];
    const ssize_t count = read(file.get(), buffer, sizeof buffer);
    if (count == 0) return content;
    if (count < 0 && errno == EINTR) continue;
    if (count < 0) return failure(errno);
    content.append(buffer, static_cast<std::size_t>(count));
    if (content.size() > limit)
      return Failure{fmt::format("{}: Longer than {} bytes", path, limit), EFBIG};
  }
}

bool writeFully(int descriptor, std::string_view content) {
  while (!content.empty()) {
    const ssize_t written = write(descriptor, content.data(), content.size());
    if (written < 0 && errno == EINTR) continue;
    if (written < 0) return false;
    content.remove_prefix(static_cast<std::size_t>(written));
  }
  return true;
}

std::optional<Failure> replaceRegularFile(const std::string& path, std::string_view content) {
  const std::string folderPath = std::filesystem::path(path).parent_path();
  const Descriptor folder(open(folderPath.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (!folder) return systemFailure("open", folderPath);
  const std::string newPath = path + ".new";
  std::optional<Failure> failure = writeNewFile(newPath, folder.get(), content);
  if (!failure && rename(newPath.c_str(), path.c_str()) != 0)
    failure = systemFailure("replace", path);
  if (failure) {
    unlink(newPath.c_str());
    return failure;
  }
  if (fsync(folder.get()) != 0) return systemFailure("write", folderPath);
  return std::nullopt;
}

}  // namespace corvid
