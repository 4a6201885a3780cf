// Where everything lies, below one root.
#pragma once

#include <string>

namespace corvid {

struct Paths {
  // `root` without a trailing slash; empty for the machine itself.
  explicit Paths(std::string root = {});

  std::string root;
  std::string socket;              // run/corvidd/com.halcyon.corvidd
  std::string entitlementsFolder;  // etc/corvid/entitlements.d
  std::string deviceFile;          // etc/corvid/device.plist
  std::string deploymentFile;      // etc/corvid/deployment.plist
  std::string localeFile;          // etc/locale.conf
  std::string resourceFolder;      // usr/share/corvid
  std::string publicKeyFile;       // usr/share/corvid/publicKey.der
  std::string infoFile;            // usr/share/corvid/Info.plist
  std::string sandboxFolder;       // usr/share/corvid/sandbox
  std::string home;                // var/lib/corvidd
  std::string preferencesFolder;   // var/lib/corvidd/Preferences
  std::string performanceBundle;   // usr/lib/corvid/PerformanceBundle.so
  std::string journalSocket;       // run/systemd/journal/socket
};

}  // namespace corvid
