// A folder of its own for one daemon: everything the daemon reads and writes lies below it.
#pragma once

#include <string>
#include <string_view>

namespace corvid {

// Made in the system's folder for temporary files, removed with its content at the end.
class ScratchRoot {
 public:
  // With the sandbox profile that the package installs, and nothing else.
  ScratchRoot();
  ~ScratchRoot();
  ScratchRoot(const ScratchRoot&) = delete;
  ScratchRoot& operator=(const ScratchRoot&) = delete;

  const std::string& path() const { return _path; }
  std::string path(std::string_view relative) const;
  // Writes the file and makes the folders above it.
  void write(std::string_view relative, std::string_view content) const;
  void remove(std::string_view relative) const;
  // Entitles the test's own user to connect.
  void entitleThisUser() const;

 private:
  std::string _path;
};

}  // namespace corvid
