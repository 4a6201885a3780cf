#include "tools/corvidctl/SystemManager.h"

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <string>

#include "base/Descriptor.h"

namespace corvid::ctl {

namespace {

// What systemctl says of both units, a line each; empty where it cannot be run.
std::string statesOfUnits() {
  std::array<int, 2> ends{};
  if (pipe2(ends.data(), O_CLOEXEC) != 0) return {};
  const Descriptor output(ends[0]);
  Descriptor input(ends[1]);
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, input.get(), STDOUT_FILENO);
  posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, "/dev/null", O_WRONLY, 0);
  std::array<const char*, 5> words{"systemctl", "is-active", "corvidd.socket", "corvidd.service",
                                   nullptr};
  pid_t process = 0;
  const int error = posix_spawnp(&process, words[0], &actions, nullptr,
                                 const_cast<char* const*>(words.data()), environ);
  posix_spawn_file_actions_destroy(&actions);
  if (error != 0) return {};
  input.reset();
  std::string text;
  std::array<char, 256> buffer;
  for (;;) {
    const ssize_t count = read(output.get(), buffer.data(), buffer.size());
    if (count > 0) text.append(buffer.data(), static_cast<std::size_t>(count));
    if (count == 0 || (count < 0 && errno != EINTR)) break;
  }
  while (waitpid(process, nullptr, 0) < 0 && errno == EINTR) {
  }
  return text;
}

}  // namespace

bool connectionWouldStartDaemon() {
  const std::string states = statesOfUnits();
  return states == "active\ninactive\n" || states == "active\nfailed\n";
}

}  // namespace corvid::ctl
