// What every check of --check-config has before it.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "base/Result.h"
#include "daemon/check/Findings.h"
#include "platform/Paths.h"
#include "platform/data/SettingFault.h"
#include "platform/system/Accounts.h"

namespace corvid {

// The text as one word of a shell's command.
std::string shellWord(std::string_view text);

struct Inspection {
  Paths paths;
  Account daemon;            // whose eyes the files are looked at with
  std::uint32_t runner = 0;  // who will paste the commands
  Findings found{};

  // The command for whoever runs the check; with sudo where only root could.
  std::string asRoot(std::string_view command) const;
  // "corvidctl" with its root, and with its path where a shell would not find it.
  std::string corvidctl() const;
  // Exchanges a text that stands in the file once; empty where it does not, as in a binary list.
  std::string editing(const std::string& path, std::string_view text,
                      std::string_view replacement) const;

  void reportFault(const std::string& path, const SettingFault& fault);
  // What was read. Where there is no file, a finding of kind `ifMissing` with the text `missing`;
  // where it is of no use, one that is wrong.
  template <class T>
  std::optional<T> usable(const std::string& path, Result<T> read, Findings::Kind ifMissing,
                          std::string_view missing) {
    if (read) return std::move(read).value();
    reportUnusable(path, read.failure(), ifMissing, missing);
    return std::nullopt;
  }
  void reportUnusable(const std::string& path, const Failure& failure, Findings::Kind ifMissing,
                      std::string_view missing);
  // The daemon's user may not read the file or folder, or not enter a folder above it.
  void reportUnreadable(const std::string& path);
};

// Each looks at one thing, and changes nothing.
void checkKernel(Inspection& it, bool entersSandbox);
void checkSandboxProfile(Inspection& it);
// In a process of its own, so that this one must have a single thread.
void checkBundle(Inspection& it);
void checkDeployment(Inspection& it);
void checkPublicKey(Inspection& it);
void checkInfo(Inspection& it);
void checkEntitlements(Inspection& it);
void checkDevice(Inspection& it);
void checkPreferences(Inspection& it);
// What the device answers, and what keeps it silent.
void checkDeviceFacts(Inspection& it);
// Whether others can write what the daemon reads, or where it stands.
void checkWriters(Inspection& it);
// Fetches and verifies each storebag, and connects to each server that one names; sends nothing. It
// starts threads.
void checkOnline(Inspection& it);

}  // namespace corvid
