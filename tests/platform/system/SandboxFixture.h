// Children that enter the daemon's own sandbox profile below a scratch root.
#pragma once

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <filesystem>
#include <functional>
#include <string>

#include "base/Sanitizer.h"
#include "platform/system/Sandbox.h"
#include "tests/support/ChildProcess.h"
#include "tests/support/Scratch.h"

namespace corvid {

// 0, or the error number, of a system call that gives -1 on failure.
inline int errorOf(long result) { return result < 0 ? errno : 0; }

class SandboxFixture : public testing::Test {
 protected:
  static constexpr const char* profileName = "com.halcyon.corvidd";
  static constexpr int notEntered = 200;

  SandboxFixture() {
    std::filesystem::create_directories(paths.sandboxFolder);
    std::filesystem::copy_file(
        std::string(CORVID_PACKAGING_FOLDER "/sandbox/") + profileName + ".plist",
        paths.sandboxFolder + "/" + profileName + ".plist");
  }

  // What `work` returns in a child inside the sandbox.
  std::optional<int> inSandbox(const std::function<int()>& work) {
    return inChild([&] {
      if (const auto error = sandboxInit(profileName, paths, deployment)) {
        std::fprintf(stderr, "sandboxInit: %s\n", error->c_str());
        return notEntered;
      }
      return work();
    });
  }
  // The error text of entering in a child; "(entered)" where there is none.
  std::string refusalText(
      const std::string& name, const std::function<void()>& before = [] {}) {
    const std::string file = root.path() + "/refusal";
    inChild([&] {
      const int output = ::creat(file.c_str(), 0600);
      before();
      const std::string text = sandboxInit(name, paths, deployment).value_or("(entered)");
      return ::write(output, text.data(), text.size()) < 0;
    });
    return contentOf(file);
  }

  ScratchFolder root;
  Paths paths{root.path()};
  Deployment deployment;
};

}  // namespace corvid
