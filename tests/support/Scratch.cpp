#include "tests/support/Scratch.h"

#include <fmt/format.h>
#include <stdlib.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <stdexcept>

namespace corvid {

namespace fs = std::filesystem;

ScratchFolder::ScratchFolder() : _path((fs::temp_directory_path() / "corvid-XXXXXX").string()) {
  if (mkdtemp(_path.data()) == nullptr) throw std::runtime_error("mkdtemp " + _path);
}

ScratchFolder::~ScratchFolder() {
  std::error_code ignored;
  fs::remove_all(_path, ignored);
}

std::string ScratchFolder::path(std::string_view relative) const {
  return fmt::format("{}/{}", _path, relative);
}

std::string ScratchFolder::write(std::string_view relative, std::string_view content) const {
  const fs::path file = path(relative);
  fs::create_directories(file.parent_path());
  std::ofstream(file, std::ios::binary) << content;
  return file;
}

void ScratchFolder::remove(std::string_view relative) const { fs::remove_all(path(relative)); }

ScratchRoot::ScratchRoot() {
  const std::string_view profile = "usr/share/corvid/sandbox/com.halcyon.corvidd.plist";
  fs::create_directories(fs::path(path(profile)).parent_path());
  fs::copy_file(CORVID_SANDBOX_PROFILE, path(profile));
}

void ScratchRoot::entitleThisUser() const {
  write("etc/corvid/entitlements.d/test.plist",
        fmt::format(R"(<?xml version="1.0" encoding="UTF-8"?>
<plist version="1.0"><dict>
<key>match</key><dict><key>user</key><integer>{}</integer></dict>
<key>entitlements</key><dict><key>com.halcyon.private.corvidd</key><true/></dict>
</dict></plist>
)",
                    getuid()));
}

std::string contentOf(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), {}};
}

}  // namespace corvid
