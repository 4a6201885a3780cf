// Folders of a test's own, made in the system's folder for temporary files and removed with their
// content when the object goes. Paths are relative to the folder.
#pragma once

#include <string>
#include <string_view>

namespace corvid {

class ScratchFolder {
 public:
  ScratchFolder();
  ~ScratchFolder();
  ScratchFolder(const ScratchFolder&) = delete;
  ScratchFolder& operator=(const ScratchFolder&) = delete;

  const std::string& path() const { return _path; }
  std::string path(std::string_view relative) const;
  // Writes the file and makes the folders above it; gives its whole path.
  std::string write(std::string_view relative, std::string_view content) const;
  void remove(std::string_view relative) const;

 private:
  std::string _path;
};

// Everything that one daemon reads and writes. At first it holds the sandbox profile that the
// package installs, and nothing else.
class ScratchRoot : public ScratchFolder {
 public:
  ScratchRoot();
  // Entitles the test's own user to connect.
  void entitleThisUser() const;
};

// What a file holds; empty where it is missing.
std::string contentOf(const std::string& path);

}  // namespace corvid
