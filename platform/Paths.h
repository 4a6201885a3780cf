// Where everything lies, below one root.
#pragma once

#include <string>
#include <string_view>
#include <utility>

namespace corvid {

struct Paths {
  // `rootFolder` without a trailing slash; empty for the machine itself.
  explicit Paths(std::string rootFolder = {}) : root(std::move(rootFolder)) {}

  std::string sandboxProfile(std::string_view name) const {
    return sandboxFolder + "/" + std::string(name) + ".plist";
  }
  std::string administratorsSandboxProfile(std::string_view name) const {
    return root + "/etc/corvid/sandbox/" + std::string(name) + ".plist";
  }

  std::string root;
  std::string socket = root + "/run/corvidd/com.halcyon.corvidd";
  std::string controlSocket = root + "/run/corvidd/control";
  std::string entitlementsFolder = root + "/etc/corvid/entitlements.d";
  std::string deviceFile = root + "/etc/corvid/device.plist";
  std::string deploymentFile = root + "/etc/corvid/deployment.plist";
  std::string localeFile = root + "/etc/locale.conf";
  std::string resourceFolder = root + "/usr/share/corvid";
  std::string publicKeyFile = resourceFolder + "/publicKey.der";
  std::string administratorsPublicKeyFile = root + "/etc/corvid/publicKey.der";
  std::string furtherKeysFolder = root + "/etc/corvid/keys.d";
  std::string infoFile = resourceFolder + "/Info.plist";
  std::string sandboxFolder = resourceFolder + "/sandbox";
  std::string home = root + "/var/lib/corvidd";
  std::string preferencesFolder = home + "/Preferences";
  std::string storebagsFolder = home + "/Storebags";
  std::string performanceBundle = root + "/usr/lib/corvid/PerformanceBundle.so";
  std::string journalSocket = root + "/run/systemd/journal/socket";
};

}  // namespace corvid
