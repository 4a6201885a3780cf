#include "platform/system/FolderWatch.h"

#include <sys/inotify.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <filesystem>

#include "base/Log.h"

namespace corvid {

namespace {

constexpr std::uint32_t changes = IN_ATTRIB | IN_CLOSE_WRITE | IN_CREATE | IN_DELETE |
                                  IN_DELETE_SELF | IN_MOVE | IN_MOVE_SELF | IN_ONLYDIR;

}  // namespace

FolderWatch::FolderWatch(const std::string& folder)
    : _folder(folder),
      _above(std::filesystem::path(folder).parent_path()),
      _notifications(inotify_init1(IN_CLOEXEC | IN_NONBLOCK)) {
  if (_notifications)
    watch();
  else
    warn(folder);
}

void FolderWatch::watch() const {
  if (!_notifications) return;
  for (const std::string& path : {_above, _folder})
    if (inotify_add_watch(_notifications.get(), path.c_str(), changes) < 0 && errno != ENOENT &&
        errno != ENOTDIR)
      warn(path);
}

void FolderWatch::warn(const std::string& path) const {
  const int error = errno;
  if (!_hasWarned.exchange(true))
    logWarning("FolderWatch: Cannot watch {}: {}; its changes hold for new connections only", path,
               std::strerror(error));
}

void FolderWatch::takeChanges() const {
  alignas(inotify_event) std::array<char, 4096> events;
  while (read(_notifications.get(), events.data(), events.size()) > 0) continue;
}

}  // namespace corvid
