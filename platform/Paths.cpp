#include "platform/Paths.h"

#include <utility>

namespace corvid {

Paths::Paths(std::string rootFolder)
    : root(std::move(rootFolder)),
      socket(root + "/run/corvidd/com.halcyon.corvidd"),
      entitlementsFolder(root + "/etc/corvid/entitlements.d"),
      deviceFile(root + "/etc/corvid/device.plist"),
      deploymentFile(root + "/etc/corvid/deployment.plist"),
      localeFile(root + "/etc/locale.conf"),
      resourceFolder(root + "/usr/share/corvid"),
      publicKeyFile(resourceFolder + "/publicKey.der"),
      infoFile(resourceFolder + "/Info.plist"),
      sandboxFolder(resourceFolder + "/sandbox"),
      home(root + "/var/lib/corvidd"),
      preferencesFolder(home + "/Preferences"),
      performanceBundle(root + "/usr/lib/corvid/PerformanceBundle.so"),
      journalSocket(root + "/run/systemd/journal/socket") {}

}  // namespace corvid
