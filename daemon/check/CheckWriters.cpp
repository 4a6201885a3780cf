// Who could change what the daemon reads.
#include <fmt/format.h>

#include <filesystem>
#include <set>
#include <vector>

#include "config/PublicKeys.h"
#include "daemon/check/Inspection.h"
#include "platform/data/Deployment.h"
#include "platform/data/LocalFileSystem.h"
#include "platform/system/SandboxProfile.h"
#include "protocol/Keys.h"

namespace corvid {

namespace {

std::vector<std::string> filesThatTheDaemonReads(const Paths& paths) {
  LocalFileSystem local;
  std::vector<std::string> files{sandboxProfileInForce(kCorvidServiceName, paths),
                                 paths.deploymentFile,
                                 publicKeyFileInForce(local, paths),
                                 paths.infoFile,
                                 paths.deviceFile,
                                 paths.localeFile,
                                 paths.performanceBundle,
                                 paths.entitlementsFolder,
                                 paths.preferencesFolder};
  for (const std::string* folder : {&paths.entitlementsFolder, &paths.preferencesFolder})
    if (const auto lists = propertyListsIn(*folder))
      files.insert(files.end(), lists.value().begin(), lists.value().end());
  if (const auto keys = local.listDirectory(paths.furtherKeysFolder))
    for (const std::string& name : keys.value())
      files.push_back(paths.furtherKeysFolder + "/" + name);
  if (const auto deployment = readDeployment(paths.deploymentFile);
      deployment && deployment.value().caFile)
    files.push_back(*deployment.value().caFile);
  return files;
}

void checkWritersOf(const std::string& path, Inspection& it) {
  const auto writers = writersOf(path);
  if (!writers) return;
  if (writers->everybody || writers->group)
    it.found.wrong(path,
                   fmt::format("{} can write it, and so decide what the daemon does",
                               writers->everybody ? "everybody" : "its group"),
                   it.asRoot(fmt::format("chmod go-w {}", shellWord(path))));
  const std::set<std::uint32_t> trusted{0, it.daemon.user, it.runner};
  if (!trusted.contains(writers->owner))
    it.found.wrong(path, fmt::format("belongs to user {}, who can change it", writers->owner),
                   it.asRoot(fmt::format("chown root {}", shellWord(path))));
}

}  // namespace

void checkWriters(Inspection& it) {
  // Each with the folders above it, up to the root's own.
  std::set<std::string> looked;
  const std::filesystem::path top = it.paths.root.empty() ? "/" : it.paths.root;
  for (const std::string& file : filesThatTheDaemonReads(it.paths))
    for (std::filesystem::path part(file);; part = part.parent_path()) {
      looked.insert(part.string());
      if (part == top || part == part.parent_path()) break;
    }
  for (const std::string& path : looked) checkWritersOf(path, it);
}

}  // namespace corvid
