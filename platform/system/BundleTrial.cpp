#include "platform/system/BundleTrial.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <utility>

#include "base/Descriptor.h"
#include "platform/system/DynamicBundleLoader.h"

namespace corvid {

namespace {

// Of the child. What ends it otherwise, the bundle's own exit() for one, does not know the first.
constexpr int didWell = 93;
constexpr int noSandbox = 94;
constexpr int notLoaded = 95;

[[noreturn]] void beTheChild(const std::string& path, std::string_view className,
                             const std::function<bool()>& enterSandbox, const Descriptor& reason) {
  prctl(PR_SET_PDEATHSIG, SIGKILL);
  constexpr rlimit noCore{};
  setrlimit(RLIMIT_CORE, &noCore);
  if (!enterSandbox()) _exit(noSandbox);
  const auto bundle = loadBundle(path);
  if (!bundle) {
    const std::string& why = bundle.failure().message;
    [[maybe_unused]] const ssize_t written = write(reason.get(), why.data(), why.size());
    _exit(notLoaded);
  }
  if (const BundleClass* const type = bundle.value()->classNamed(className)) type->create();
  _exit(didWell);
}

// What the child wrote before it ended.
std::string reasonIn(const Descriptor& pipe) {
  char text[512];
  const ssize_t size = read(pipe.get(), text, sizeof text);
  return {text, static_cast<std::size_t>(std::max<ssize_t>(size, 0))};
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

std::optional<std::string> faultOf(const std::string& path, std::string_view className,
                                   const std::function<bool()>& enterSandbox,
                                   std::chrono::milliseconds patience) {
  int ends[2];
  if (pipe2(ends, O_CLOEXEC | O_NONBLOCK) != 0)
    return fmt::format("there is no pipe to try it with: {}", std::strerror(errno));
  const Descriptor reason(ends[0]);
  const Descriptor childsEnd(ends[1]);
  const pid_t child = fork();
  if (child < 0) return fmt::format("there is no process to try it in: {}", std::strerror(errno));
  if (child == 0) beTheChild(path, className, enterSandbox, childsEnd);
  const std::optional<int> status = statusOf(child, patience);
  if (!status) return fmt::format("it was not done after {} ms", patience.count());
  if (WIFSIGNALED(*status))
    return fmt::format("it crashed with signal {} ({})", WTERMSIG(*status),
                       strsignal(WTERMSIG(*status)));
  switch (WEXITSTATUS(*status)) {
    case didWell: return std::nullopt;
    case noSandbox: return "the sandbox to try it in could not be entered";
    case notLoaded: return fmt::format("it could not be loaded: {}", reasonIn(reason));
    default: return fmt::format("it ended its process with status {}", WEXITSTATUS(*status));
  }
}

}  // namespace

BundleTrial tryBundle(const std::string& path, std::string_view className,
                      const std::function<bool()>& enterSandbox,
                      std::chrono::milliseconds patience) {
  const FileStamp file = FileStamp::of(path);
  if (file.error != 0) return {};
  if (auto fault = faultOf(path, className, enterSandbox, patience))
    return {.passed = std::nullopt, .fault = std::move(fault)};
  return {.passed = file, .fault = std::nullopt};
}

}  // namespace corvid
