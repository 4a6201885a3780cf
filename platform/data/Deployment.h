// What the deployment sets: hosts of the storebag servers and how they may be reached.
#pragma once

#include <cstdint>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "base/Result.h"
#include "platform/data/SettingFault.h"

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
  // The TCP ports that the daemon may connect to, beside 53, 443 and those of the hosts; nothing:
  // to all.
  std::optional<std::set<std::uint16_t>> tcpPorts;
  // The local message log is written.
  bool messageLog = true;
  // Verified storebags stay on the disk, and hold over a restart.
  bool keepStorebags = false;
  // A storebag's signature counts only with one over SHA-256 beside it.
  bool requireSHA256Signature = false;
  // A storebag's serial may not go down.
  bool refuseOlderStorebags = false;
  // Up to this share, 0 to 0.5, of a storebag's age is taken off, drawn for each fetch.
  double refreshJitter = 0;
  // Settings that are passed over, and those that cannot work.
  std::vector<SettingFault> faults;
};

// Every TCP port that the deployment lets the daemon connect to; nothing where that is all.
std::optional<std::set<std::uint16_t>> reachableTCPPorts(const Deployment& deployment);

// Why no server could be trusted by the certificates of that file, which the failure names; its
// code is the system's where the file cannot be read.
std::optional<Failure> faultOfCAFile(const std::string& path);

// Reads the property list's "ProductionStorebagHost", "InternalStorebagHost" and "CAFile" (texts
// that are not empty), "AllowInsecureHTTP", "ConsentIsLive", "MessageLog", "KeepStorebags",
// "RequireSHA256Signature" and "RefuseOlderStorebags" (booleans), and "RefreshJitter" (a number).
// Whatever is missing or of another type stays at its default, the latter a fault; but of
// "TCPPorts" (an array of integers) what is no port is left out, and no array counts as an empty
// one. Faults are also unknown keys, a host that is no host[:port], a relative CAFile and a jitter
// that is out of range, which counts as 0. A file that cannot be read, or is no dictionary, is a
// failure that names it; its code is ENOENT where there is none.
Result<Deployment> readDeployment(const std::string& path);

}  // namespace corvid
