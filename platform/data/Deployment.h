// What the deployment sets: hosts of the storebag servers and how they may be reached.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "base/Result.h"

namespace corvid {

struct Deployment {
  // `host[:port]`. The built-in hosts end in ".invalid", so that nothing is reached by default.
  std::string productionStorebagHost = "storebags.corvid.invalid";
  std::string internalStorebagHost = "internal-storebags.corvid.invalid";
  // Certificates to trust instead of the system's, as a PEM file.
  std::optional<std::string> caFile;
  // Lets plain http through; for loopback tests.
  bool allowInsecureHTTP = false;
  // Consent is asked again whenever something is about to leave, not at a session's start alone.
  bool consentIsLive = false;
  // Settings that are passed over because their value is of the wrong type.
  std::vector<std::string> passedOver;
};

// Reads the property list's "ProductionStorebagHost", "InternalStorebagHost" and "CAFile" (texts
// that are not empty), "AllowInsecureHTTP" and "ConsentIsLive" (booleans). Whatever is missing or
// of another type stays at its default, the latter listed as passed over. A file that cannot be
// read, or is no dictionary, is a failure that names it; its code is ENOENT where there is none.
Result<Deployment> readDeployment(const std::string& path);

}  // namespace corvid
