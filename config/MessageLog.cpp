#include "config/MessageLog.h"

#include <cerrno>
#include <optional>
#include <string>
#include <vector>

#include "base/Describe.h"
#include "base/Log.h"
#include "base/Text.h"
#include "platform/Platform.h"

namespace corvid {

namespace {

constexpr std::string_view processPart = "corvidd";
constexpr std::string_view kindPart = "messageLog.diag";
constexpr double secondsUntilExpiry = 86400;
// A folder that has changed this lately may change once more at the same tick of its clock.
constexpr double secondsUntilSettled = 1;

struct LogFile {
  std::string path;
  std::optional<TimeValue> creationDate;

  std::string dateDescription() const {
    return creationDate ? descriptionOfDate(creationDate->asDouble())
                        : std::string(nullDescription);
  }
};

bool isLogFileName(std::string_view name) {
  const std::vector<std::string_view> parts = split(name, '_');
  return parts.size() == 3 && parts[0] == processPart && parts[2] == kindPart;
}

bool isExpired(const LogFile& file, const TimeValue& now) {
  return file.creationDate && now.asDouble() - file.creationDate->asDouble() > secondsUntilExpiry;
}

// A file of unknown date is older than every other.
bool isLater(const LogFile& a, const LogFile& b) {
  if (!a.creationDate) return false;
  return !b.creationDate || a.creationDate->asDouble() > b.creationDate->asDouble();
}

// One line for expired, superseded, full and half-written files alike.
void deleteLogFile(FileSystem& files, const LogFile& file) {
  files.remove(file.path);
  logInfo("writeToLogFile: Deleted expired corvidd log file {} ({})", file.path,
          file.dateDescription());
}

std::vector<std::string> listLogDirectory(FileSystem& files, const std::string& directory) {
  auto names = files.listDirectory(directory);
  if (names) return std::move(names).value();
  if (names.failure().code == ENOENT) {
    logInfo("writeToLogFile: Creating corvidd log directory at {}", directory);
    files.createDirectories(directory);
  } else {
    logError("writeToLogFile: Error reading from log directory: {}", names.failure().message);
  }
  return {};
}

// The newest log file that has not expired; every other log file is gone afterwards.
std::optional<LogFile> keepNewestLogFile(FileSystem& files, const std::string& directory,
                                         const TimeValue& now) {
  std::optional<LogFile> candidate;
  for (const std::string& name : listLogDirectory(files, directory)) {
    if (!isLogFileName(name)) continue;
    std::string path = directory + "/" + name;
    const auto creationDate = files.creationDate(path);
    LogFile entry{std::move(path), creationDate};
    if (isExpired(entry, now) || (candidate && !isLater(entry, *candidate))) {
      deleteLogFile(files, entry);
      continue;
    }
    if (candidate) deleteLogFile(files, *candidate);
    candidate = std::move(entry);
  }
  return candidate;
}

// The same, without a look into a directory that has not changed since the last one.
std::optional<LogFile> findLogFile(Platform& platform, const std::string& directory,
                                   const TimeValue& now) {
  FileSystem& files = platform.files();
  FoundMessageLog& found = platform.foundMessageLog;
  const std::optional<TimeValue> change = files.changeDate(directory);
  LogFile known;
  {
    const MutexLock lock(found.mutex);
    if (change && change == found.folderChange) known.path = found.path;
  }
  if (!known.path.empty()) {
    known.creationDate = files.creationDate(known.path);
    if (known.creationDate && !isExpired(known, now)) return known;
  }
  std::optional<LogFile> file = keepNewestLogFile(files, directory, now);
  const bool settled = change && now.asDouble() - change->asDouble() > secondsUntilSettled;
  const MutexLock lock(found.mutex);
  found.path = file ? file->path : std::string();
  found.folderChange = settled ? change : std::nullopt;
  return file;
}

std::optional<LogFile> createLogFile(FileSystem& files, const std::string& directory,
                                     const TimeValue& now) {
  LogFile file{fmt::format("{}/{}_{}_{}", directory, processPart,
                           static_cast<std::int32_t>(now.seconds), kindPart),
               std::nullopt};
  files.createFile(file.path);
  if (!files.exists(file.path)) {
    logError("writeToLogFile: Failed to create new corvidd log file {}", file.path);
    return std::nullopt;
  }
  file.creationDate = files.creationDate(file.path);
  logInfo("writeToLogFile: Created new corvidd log file {} ({})", file.path,
          file.dateDescription());
  return file;
}

}  // namespace

void writeToLogFile(std::string_view message) {
  Platform& platform = Platform::current();
  FileSystem& files = platform.files();
  const std::string directory = platform.paths().home + "/Library/Logs/Faultline/Retired";
  const TimeValue now = platform.clock().now();

  std::optional<LogFile> file = findLogFile(platform, directory, now);
  if (file && files.size(file->path) >= mostMessageLogBytes) {
    deleteLogFile(files, *file);
    file.reset();
  }
  if (!file) file = createLogFile(files, directory, now);
  if (!file) return;

  const std::string prefix = fmt::format("({}) ", descriptionOfDate(now.asDouble()));
  if (files.append(file->path, {prefix, message, "\n"}))
    logInfo("writeToLogFile: Saved log message to {}", file->path);
  else
    deleteLogFile(files, *file);
}

}  // namespace corvid
