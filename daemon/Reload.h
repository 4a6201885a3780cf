// Settings read anew while the daemon runs.
#pragma once

#include <functional>
#include <optional>
#include <string>
#include <utility>

#include "base/Mutex.h"
#include "base/Result.h"
#include "platform/Paths.h"
#include "platform/data/Deployment.h"

namespace corvid {

// Reads the deployment, the device's answers and the public keys anew. What is sound holds from
// then on, which one info line a file says; of a file that is not, what was in force stays, which
// one error line says:
//   "reload: FILE: what; keeping what was in force"
// Sessions, batches and storebags are kept.
//
// A deployment is sound where --check-config finds nothing wrong with it: a misspelt key in it
// would leave a setting behind that was meant to change. So is a missing one, whose defaults hold,
// and missing answers. What the sandbox has closed at the start needs a restart: a CAFile outside
// the folders that were open then, more TCPPorts.
//
// Threads: any; one call waits for the other.
class Reload {
 public:
  struct Effects {
    std::function<void(Deployment)> putInForce;
    std::function<std::optional<Failure>()> readDeviceAnswers;
    std::function<void()> forgetPauses;  // after failures
  };

  // `atStart` is what the sandbox was entered with; nothing where there is none.
  Reload(Paths paths, std::optional<Deployment> atStart, Effects effects)
      : _paths(std::move(paths)), _atStart(std::move(atStart)), _effects(std::move(effects)) {}

  void run() EXCLUDES(_mutex);
  // run() does nothing from now on, and what the effects hold is let go.
  void end() EXCLUDES(_mutex);

 private:
  // Why the file is not used.
  std::optional<std::string> reloadDeployment() REQUIRES(_mutex);
  void sayPublicKeys() const;
  std::optional<std::string> closedTo(const Deployment& deployment) const;

  const Paths _paths;
  const std::optional<Deployment> _atStart;
  Mutex _mutex;
  std::optional<Effects> _effects GUARDED_BY(_mutex);  // nothing after the end
};

}  // namespace corvid
