#include "platform/system/Sandbox.h"

#include <fmt/format.h>
#include <sys/prctl.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstring>
#include <filesystem>

#include "base/Sanitizer.h"
#include "platform/system/Landlock.h"
#include "platform/system/SandboxProfile.h"
#include "platform/system/SeccompFilter.h"

// Younger than the oldest headers this builds with.
#ifndef PR_SET_MDWE
#define PR_SET_MDWE 65
#define PR_MDWE_REFUSE_EXEC_GAIN 1
#endif

namespace corvid {

namespace {

// A sanitizer reads the program's file to name what it found, and searches for leaks from a process
// of its own. This is a matter of the build, so that no profile can give these rights by mistake.
void extendForSanitizer(SandboxProfile& profile) {
  profile.hasSanitizer = true;
  profile.readOnlyPaths.emplace_back("/proc/self/exe");
  for (const char* name : {"getdents", "ptrace", "wait4"}) profile.systemCalls.emplace_back(name);
}

// What /proc does not tell is taken to be well.
bool isOnlyThread() {
  struct stat tasks {};
  constexpr nlink_t linksOfOneTask = 3;
  return stat("/proc/self/task", &tasks) != 0 || tasks.st_nlink <= linksOfOneTask;
}

// The text says why the folder is not there afterwards.
std::optional<std::string> makeFolder(const std::string& path, mode_t mode) {
  struct stat status {};
  if (stat(path.c_str(), &status) == 0) return std::nullopt;
  std::error_code error;
  std::filesystem::create_directories(std::filesystem::path(path).parent_path(), error);
  if (mkdir(path.c_str(), mode) == 0 || errno == EEXIST) return std::nullopt;
  return fmt::format("cannot make the folder {}: {}", path, std::strerror(errno));
}

std::optional<std::string> makeFolders(const SandboxProfile& profile) {
  for (const std::string& path : profile.readWritePaths)
    if (auto error = makeFolder(path, 0700)) return error;
  return profile.socketFolder.empty() ? std::nullopt : makeFolder(profile.socketFolder, 0755);
}

}  // namespace

std::optional<std::string> sandboxInit(const std::string& profileName, const Paths& paths,
                                       const Deployment& deployment, MissingFolders folders) {
  Result<SandboxProfile> profile = SandboxProfile::named(profileName, paths, deployment);
  if (!profile)
    return fmt::format("profile {}; install the daemon's own profile there",
                       profile.failure().message);
  if (hasSanitizer)
    extendForSanitizer(profile.value());
  else if (!isOnlyThread())
    return "the process has other threads already, which would stay outside";
  if (prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) != 0)
    return fmt::format("cannot give up new privileges: {}", std::strerror(errno));
  // Linux 6.3 and later; the system-call filter refuses the same by itself.
  prctl(PR_SET_MDWE, PR_MDWE_REFUSE_EXEC_GAIN, 0, 0, 0);
  if (folders == MissingFolders::make)
    if (auto error = makeFolders(profile.value())) return error;
  if (auto error = enterLandlock(profile.value())) return error;
  return enterSeccompFilter(profile.value());
}

std::optional<std::string> sandboxSeal() {
  return refuseSystemCallsInAllThreads({"listen", "chmod", "fchmodat"});
}

}  // namespace corvid
