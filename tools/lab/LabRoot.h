// The files below a root that let `corvidd --root DIR` work against a lab at once.
#pragma once

#include <cstdint>
#include <string>

#include "base/Descriptor.h"

namespace corvid::lab {

// Lays the folders out; files of the lab itself stand in DIR/lab. What a person may have edited
// (storebags, device answers, entitlements, preferences) is written only where it is missing.
//
// While it lives no other lab can have the same root.
//
// Errors    std::runtime_error, saying which file.
class LabRoot {
 public:
  explicit LabRoot(std::string root);

  std::string tlsFolder() const { return _root + "/lab/tls"; }
  std::string signingKeyFile() const { return _root + "/lab/signing-key.pem"; }
  std::string storebagFolder() const { return _root + "/lab/storebags"; }
  std::string receivedFile() const { return _root + "/lab/received.jsonl"; }

  // Public key, Info.plist and sandbox profile; an entitlement for the user who runs the lab;
  // device answers; a storebag for every storebag name.
  void writeFiles(const std::string& publicKeyDER) const;
  // deployment.plist; it changes with the port.
  void writeDeployment(std::uint16_t storebagPort, const std::string& caFile) const;

 private:
  const std::string _root;
  Descriptor _lock;
};

}  // namespace corvid::lab
