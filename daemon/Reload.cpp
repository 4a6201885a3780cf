#include "daemon/Reload.h"

#include <fmt/format.h>
#include <fmt/ranges.h>

#include <algorithm>
#include <cerrno>
#include <utility>
#include <vector>

#include "base/Log.h"
#include "config/PublicKeys.h"
#include "platform/data/LocalFileSystem.h"

namespace corvid {

namespace {

void sayFault(const std::string& path, const std::string& what) {
  logError("reload: {}: {}; keeping what was in force", path, what);
}

void sayRead(const std::string& path) { logInfo("reload: {}: read anew", path); }

}  // namespace

void Reload::run() {
  const MutexLock lock(_mutex);
  if (!_effects) return;
  if (const auto fault = reloadDeployment())
    sayFault(_paths.deploymentFile, *fault);
  else
    sayRead(_paths.deploymentFile);
  if (const auto fault = _effects->readDeviceAnswers())
    sayFault(_paths.deviceFile, whatFailed(*fault, _paths.deviceFile));
  else
    sayRead(_paths.deviceFile);
  sayPublicKeys();
  _effects->forgetPauses();
}

void Reload::end() {
  const MutexLock lock(_mutex);
  _effects.reset();
}

std::optional<std::string> Reload::reloadDeployment() {
  Result<Deployment> read = readDeployment(_paths.deploymentFile);
  if (!read && read.failure().code != ENOENT)
    return whatFailed(read.failure(), _paths.deploymentFile);
  Deployment deployment = read ? std::move(read).value() : Deployment();
  if (!deployment.faults.empty()) {
    std::vector<std::string> faults;
    for (const SettingFault& fault : deployment.faults)
      faults.push_back(fmt::format("{} {}", fault.key, fault.what));
    return fmt::format("{}", fmt::join(faults, ", "));
  }
  if (auto fault = closedTo(deployment)) return fault;
  _effects->putInForce(std::move(deployment));
  return std::nullopt;
}

std::optional<std::string> Reload::closedTo(const Deployment& deployment) const {
  if (deployment.caFile) {
    const auto fault = faultOfCAFile(*deployment.caFile);
    if (fault && fault->code == EACCES && _atStart)
      return fmt::format(
          "its CAFile {} is outside the folders that were open at the start, and needs a restart",
          *deployment.caFile);
    if (fault) return fmt::format("its CAFile cannot be used: {}", fault->message);
  }
  const auto open = _atStart ? reachableTCPPorts(*_atStart) : std::nullopt;
  if (!open) return std::nullopt;
  const auto wanted = reachableTCPPorts(deployment);
  if (wanted && std::ranges::includes(*open, *wanted)) return std::nullopt;
  return "it asks for TCP ports that were closed at the start, which needs a restart";
}

// Each fetch reads them for itself; here they are looked at before somebody waits for one.
void Reload::sayPublicKeys() const {
  LocalFileSystem files;
  const PublicKeys keys = readPublicKeys(files, _paths);
  for (const std::string& file : keys.files) sayRead(file);
  for (const PublicKeys::Fault& fault : keys.faults) {
    const bool hasOthers =
        fault.path == keys.mainFile && fault.code == ENOENT && !keys.usable.empty();
    if (!hasOthers) sayFault(fault.path, fault.what);
  }
}

}  // namespace corvid
