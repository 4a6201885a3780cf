// Whether the daemon can enter its sandbox, and what becomes of a bundle in it.
#include <fmt/format.h>

#include "daemon/check/Inspection.h"
#include "platform/data/Deployment.h"
#include "platform/system/BundleTrial.h"
#include "platform/system/Landlock.h"
#include "platform/system/Sandbox.h"
#include "platform/system/SandboxProfile.h"
#include "protocol/Keys.h"

namespace corvid {

namespace {

// As far as it can be used.
Deployment deploymentOf(const Inspection& it) {
  const auto deployment = readDeployment(it.paths.deploymentFile);
  return deployment ? deployment.value() : Deployment();
}

// The profile that was installed for the machine, where this one is another root's.
std::string installingProfile(const Inspection& it, const std::string& path) {
  const std::string installed = Paths().sandboxProfile(kCorvidServiceName);
  if (it.paths.root.empty() || !SandboxProfile::named(kCorvidServiceName, Paths(), {})) return {};
  return it.asRoot(fmt::format("install -D -m 644 {} {}", shellWord(installed), shellWord(path)));
}

}  // namespace

void checkKernel(Inspection& it, bool entersSandbox) {
  const auto missing = landlockMissing();
  if (!missing)
    it.found.right("kernel", "has Landlock");
  else if (entersSandbox)
    it.found.wrong("kernel", fmt::format("{}; without it the daemon does not start", *missing));
  else
    it.found.note("kernel", fmt::format("{}; the sandbox is off", *missing));
}

void checkSandboxProfile(Inspection& it) {
  const std::string path = sandboxProfileInForce(kCorvidServiceName, it.paths);
  const auto profile = SandboxProfile::named(kCorvidServiceName, it.paths, deploymentOf(it));
  if (profile) return it.found.right(path, "a sandbox profile");
  if (profile.failure().code == EACCES) return it.reportUnreadable(path);
  it.found.wrong(path,
                 profile.failure().message +
                     ", so the daemon does not start; install the daemon's own profile",
                 installingProfile(it, path));
}

void checkBundle(Inspection& it) {
  const std::string& path = it.paths.performanceBundle;
  const BundleTrial trial = tryBundle(path, "MetrixAdaptor", [&] {
    return !sandboxInit(std::string(kCorvidServiceName), it.paths, deploymentOf(it),
                        MissingFolders::leave);
  });
  if (trial.fault)
    it.found.wrong(path, fmt::format("is not used: {}; mend or remove it", *trial.fault));
  else if (trial.passed)
    it.found.right(path, "can be loaded");
}

}  // namespace corvid
