#include "config/MessageLog.h"

#include <cerrno>
#include <optional>
#include <string>
#include <vector>

#include "base/ActingUser.h"
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

// One line for expired, superseded and half-written files alike.
void deleteLogFile(FileSystem& files, const LogFile& file) {
  files.remove(file.path);
  logInfo("writeToLogFile: Deleted expired corvidd log file {} ({})", file.path,
          file.dateDescription());
}

// What passes by itself: nothing is wrong with a file then, and none is deleted for it.
bool isShortage(int error) {
  return error == ENOSPC || error == EDQUOT || error == EMFILE || error == ENFILE ||
         error == ENOMEM;
}

// Fails where the directory may hold a file that cannot be seen for the moment.
Result<std::vector<std::string>> listLogDirectory(FileSystem& files, const std::string& directory) {
  auto names = files.listDirectory(directory);
  if (names) return names;
  if (names.failure().code == ENOENT) {
    logInfo("writeToLogFile: Creating corvidd log directory at {}", directory);
    files.createDirectories(directory);
  } else {
    logError("writeToLogFile: Error reading from log directory: {}", names.failure().message);
    if (isShortage(names.failure().code)) return names;
  }
  return std::vector<std::string>();
}

// The newest log file that has not expired, if there is one; every other log file is gone
// afterwards.
Result<std::optional<LogFile>> keepNewestLogFile(FileSystem& files, const std::string& directory,
                                                 const TimeValue& now) {
  const auto names = listLogDirectory(files, directory);
  if (!names) return names.failure();
  std::optional<LogFile> candidate;
  for (const std::string& name : names.value()) {
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
Result<std::optional<LogFile>> findLogFile(FileSystem& files, KnownMessageLog& log,
                                           const std::string& directory, const TimeValue& now)
    REQUIRES(log.mutex) {
  const std::optional<TimeValue> change = files.changeDate(directory);
  if (change && change == log.folderChange && !log.path.empty()) {
    LogFile known{log.path, files.creationDate(log.path)};
    if (known.creationDate && !isExpired(known, now)) return std::optional(std::move(known));
  }
  auto found = keepNewestLogFile(files, directory, now);
  if (!found) return found;
  const std::optional<LogFile>& file = found.value();
  const bool settled = change && now.asDouble() - change->asDouble() > secondsUntilSettled;
  log.path = file ? file->path : std::string();
  log.folderChange = settled ? change : std::nullopt;
  return found;
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

// Takes lines out of a full file. False where that fails.
bool makeRoom(FileSystem& files, const std::string& path, LogShares& shares) {
  const std::size_t size = files.size(path);
  if (!shares.isOf(path, size)) shares.begin(path, size);
  while (shares.bytes() >= mostMessageLogBytes) {
    const auto ranges = shares.removeOlderHalfOfMost(
        [&](std::size_t from, std::size_t latest) { return files.endOfLine(path, from, latest); });
    if (const auto failure = files.removeRanges(path, ranges)) {
      logError("writeToLogFile: A log message is lost, the log file is full: {}", failure->message);
      return false;
    }
    logInfo("writeToLogFile: Took the oldest lines out of the full corvidd log file {}", path);
  }
  return true;
}

}  // namespace

void writeToLogFile(std::string_view message) {
  Platform& platform = Platform::current();
  if (!platform.deployment()->messageLog) return;
  FileSystem& files = platform.files();
  const std::string directory = platform.paths().home + "/Library/Logs/Faultline/Retired";
  const TimeValue now = platform.clock().now();
  KnownMessageLog& log = platform.messageLog;

  const MutexLock lock(log.mutex);
  auto found = findLogFile(files, log, directory, now);
  if (!found) return;
  std::optional<LogFile> file = std::move(found).value();
  if (!file) file = createLogFile(files, directory, now);
  if (!file) return;
  if (!makeRoom(files, file->path, log.shares)) return;

  const std::string prefix = fmt::format("({}) ", descriptionOfDate(now.asDouble()));
  const std::optional<Failure> failure = files.append(file->path, {prefix, message, "\n"});
  if (!failure) {
    log.shares.add(actingUser(), prefix.size() + message.size() + 1);
    logInfo("writeToLogFile: Saved log message to {}", file->path);
  } else if (isShortage(failure->code)) {
    logError("writeToLogFile: A log message is lost: {}", failure->message);
  } else {
    deleteLogFile(files, *file);
  }
}

}  // namespace corvid
