#include "client/UploadedFile.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <utility>

#include "client/include/corvid/corvid.h"
#include "protocol/Limits.h"

namespace corvid::library {

namespace {

int resultOfFailedOpen() {
  const bool exhausted = errno == EMFILE || errno == ENFILE || errno == ENOMEM;
  return exhausted ? CORVID_ERROR_SYSTEM : CORVID_OK;
}

bool isSameFile(const struct stat& a, const struct stat& b) {
  return a.st_dev == b.st_dev && a.st_ino == b.st_ino;
}

}  // namespace

UploadedFile::UploadedFile(Descriptor folder, std::string name, Descriptor file)
    : _folder(std::move(folder)), _name(std::move(name)), _file(std::move(file)) {}

int UploadedFile::open(const std::string& path, std::shared_ptr<UploadedFile>& file) {
  const std::size_t slash = path.rfind('/');
  std::string name = path.substr(slash + 1);
  Descriptor folder(::open(path.substr(0, slash + 1).c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
  if (!folder) return resultOfFailedOpen();
  // Opening a device or a pipe could set something going; what is swapped in between is found out.
  struct stat status {};
  if (fstatat(folder.get(), name.c_str(), &status, AT_SYMLINK_NOFOLLOW) != 0 ||
      !S_ISREG(status.st_mode))
    return CORVID_OK;
  Descriptor opened(openat(folder.get(), name.c_str(),
                           O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
  if (!opened) return resultOfFailedOpen();
  if (fstat(opened.get(), &status) != 0 || !S_ISREG(status.st_mode)) return CORVID_OK;
  if (static_cast<std::uint64_t>(status.st_size) > limits::uploadBytes)
    return CORVID_ERROR_TOO_LARGE;
  file = std::make_shared<UploadedFile>(std::move(folder), std::move(name), std::move(opened));
  return CORVID_OK;
}

void UploadedFile::remove() const {
  struct stat opened {};
  struct stat named {};
  if (fstat(_file.get(), &opened) == 0 &&
      fstatat(_folder.get(), _name.c_str(), &named, AT_SYMLINK_NOFOLLOW) == 0 &&
      isSameFile(opened, named))
    unlinkat(_folder.get(), _name.c_str(), 0);
}

}  // namespace corvid::library
