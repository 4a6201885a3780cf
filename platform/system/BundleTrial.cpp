#include "platform/system/BundleTrial.h"

#include <fmt/format.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstring>

#include "platform/base/Descriptor.h"
#include "platform/system/DynamicBundleLoader.h"

namespace corvid {

namespace {

// Of the child. What ends it otherwise, the bundle's own exit() for one, does not know the first.
constexpr int didWell = 93;
constexpr int noSandbox = 94;
constexpr int notLoaded = 95;

[[noreturn]] void beTheChild(const std::string& path, std::string_view className,
                             const std::function<bool()>& enterSandbox) {
  prctl(PR_SET_PDEATHSIG, SIGKILL);
  constexpr rlimit noCore{};
  setrlimit(RLIMIT_CORE, &noCore);
  if (!enterSandbox()) _exit(noSandbox);
  DynamicBundleLoader loader(path);
  const auto bundle = loader.performanceBundle();
  if (!bundle) _exit(notLoaded);
  if (const BundleClass* const type = bundle->classNamed(className)) type->create();
  _exit(didWell);
}

// How the child ended; nothing where it had to be ended.
std::optional<int> statusOf(pid_t child, std::chrono::milliseconds patience) {
  const Descriptor process(static_cast<int>(syscall(SYS_pidfd_open, child, 0)));
  pollfd end{process.get(), POLLIN, 0};
  int ready;
  do ready = poll(&end, 1, static_cast<int>(patience.count()));
  while (ready < 0 && errno == EINTR);
  if (ready <= 0) kill(child, SIGKILL);
  int status = 0;
  while (waitpid(child, &status, 0) < 0 && errno == EINTR) {
  }
  return ready > 0 ? std::optional(status) : std::nullopt;
}

}  // namespace

std::optional<std::string> tryBundle(const std::string& path, std::string_view className,
                                     const std::function<bool()>& enterSandbox,
                                     std::chrono::milliseconds patience) {
  if (access(path.c_str(), F_OK) != 0) return std::nullopt;
  const pid_t child = fork();
  if (child < 0) return fmt::format("there is no process to try it in: {}", std::strerror(errno));
  if (child == 0) beTheChild(path, className, enterSandbox);
  const std::optional<int> status = statusOf(child, patience);
  if (!status) return fmt::format("it was not done after {} ms", patience.count());
  if (WIFSIGNALED(*status))
    return fmt::format("it crashed with signal {} ({})", WTERMSIG(*status),
                       strsignal(WTERMSIG(*status)));
  switch (WEXITSTATUS(*status)) {
    case didWell: return std::nullopt;
    case noSandbox: return "the sandbox to try it in could not be entered";
    case notLoaded: return "it could not be loaded";
    default: return fmt::format("it ended its process with status {}", WEXITSTATUS(*status));
  }
}

}  // namespace corvid
