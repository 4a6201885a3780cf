// A folder of its own for a test, and children that look at the process from inside.
#pragma once

#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <stdexcept>
#include <string>
#include <string_view>

namespace corvid {

// Exists for the object's lifetime.
class Scratch {
 public:
  Scratch() {
    std::string path = std::filesystem::temp_directory_path() / "corvid-XXXXXX";
    if (mkdtemp(path.data()) == nullptr) throw std::runtime_error("mkdtemp");
    _path = path;
  }
  ~Scratch() { std::filesystem::remove_all(_path); }
  Scratch(const Scratch&) = delete;
  Scratch& operator=(const Scratch&) = delete;

  const std::string& path() const { return _path; }
  // The file below the folder, with its folders.
  std::string write(const std::string& name, std::string_view content) const {
    const std::filesystem::path file = std::filesystem::path(_path) / name;
    std::filesystem::create_directories(file.parent_path());
    std::ofstream(file, std::ios::binary | std::ios::trunc) << content;
    return file;
  }

 private:
  std::string _path;
};

// Starts a child process that runs `work` and exits with what it returns; one that hangs is ended.
// Other threads of this process should be at rest: the child has what they hold, and not them.
inline pid_t startChild(const std::function<int()>& work) {
  std::fflush(nullptr);
  const pid_t child = fork();
  if (child < 0) throw std::runtime_error("fork");
  if (child == 0) {
    alarm(30);
    _exit(work());
  }
  return child;
}

// Waits for its end: the exit status, or minus the signal that ended it.
inline int awaitChild(pid_t child) {
  int status = 0;
  waitpid(child, &status, 0);
  return WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
}

inline int inChild(const std::function<int()>& work) { return awaitChild(startChild(work)); }

}  // namespace corvid
