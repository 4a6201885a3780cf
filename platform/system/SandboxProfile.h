// What a sandbox profile lets the process do.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "base/Result.h"
#include "base/Value.h"
#include "platform/Paths.h"
#include "platform/data/Deployment.h"

namespace corvid {

// The keys of the property list; `systemCalls` must be there. "${name}" in a path stands for the
// placeholder's value, and a path that comes out empty is left out. What is not allowed is refused.
struct SandboxProfile {
  using Placeholders = std::map<std::string, std::string, std::less<>>;

  // Files, and folders with all that is below them. What does not exist when the sandbox is entered
  // is passed over.
  std::vector<std::string> readOnlyPaths;
  // The same, for reading and writing. What does not exist is made, as a folder for the owner only.
  std::vector<std::string> readWritePaths;
  // Where Unix sockets may be made and files removed; made where it does not exist. Empty: nowhere.
  std::string socketFolder;
  // The keys of `network`: TCP connections out, and UDP sockets.
  bool allowsTCPConnect = false;
  bool allowsUDP = false;
  // System calls by name; some only with harmless arguments (SeccompFilter.cpp).
  std::vector<std::string> systemCalls;
  // System calls that look missing, so that libraries quietly do without them.
  std::vector<std::string> absentSystemCalls;
  // No key: the only TCP ports to connect to, where the deployment names some.
  std::optional<std::set<std::uint16_t>> tcpPorts;
  // No key: a sanitizer is built in, whose search for leaks starts a process that traces this one.
  bool hasSanitizer = false;

  // The failure says which key is wrong; an unknown one is.
  static Result<SandboxProfile> fromDictionary(const Dictionary& dictionary,
                                               const Placeholders& placeholders);
  // The failure names the file as well.
  static Result<SandboxProfile> fromFile(const std::string& path, const Placeholders& placeholders);
  // sandboxProfileInForce() with the deployment's ports; "${root}" and "${caFile}" stand for what
  // the paths and the deployment say.
  static Result<SandboxProfile> named(std::string_view name, const Paths& paths,
                                      const Deployment& deployment);
};

// The administrator's profile of that name, or, where there is none, the one that came with the
// system.
std::string sandboxProfileInForce(std::string_view name, const Paths& paths);

}  // namespace corvid
