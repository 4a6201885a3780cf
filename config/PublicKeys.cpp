#include "config/PublicKeys.h"

#include <fmt/format.h>

#include <cerrno>
#include <utility>

#include "platform/data/LocalFileSystem.h"

namespace corvid {

namespace {

void readKey(FileSystem& files, const std::string& path, PublicKeys& keys) {
  const auto content = files.readFile(path, publicKeyLimit);
  if (!content) {
    keys.faults.push_back({path, whatFailed(content.failure(), path), content.failure().code});
    return;
  }
  auto key = RSAPublicKey::fromDER(content.value());
  if (!key) return keys.faults.push_back({path, key.failure().message, key.failure().code});
  keys.usable.push_back(std::move(key).value());
  keys.files.push_back(path);
}

}  // namespace

std::string publicKeyFileInForce(FileSystem& files, const Paths& paths) {
  const std::string& own = paths.administratorsPublicKeyFile;
  return files.exists(own) ? own : paths.publicKeyFile;
}

PublicKeys readPublicKeys(FileSystem& files, const Paths& paths) {
  PublicKeys keys;
  keys.mainFile = publicKeyFileInForce(files, paths);
  readKey(files, keys.mainFile, keys);
  const auto names = files.listDirectory(paths.furtherKeysFolder);
  if (!names) {
    if (names.failure().code != ENOENT)
      keys.faults.push_back({paths.furtherKeysFolder, "cannot be listed", names.failure().code});
    return keys;
  }
  std::size_t read = 0;
  for (const std::string& name : names.value()) {
    if (!name.ends_with(".der") || name.starts_with('.')) continue;
    const std::string path = fmt::format("{}/{}", paths.furtherKeysFolder, name);
    if (++read <= mostFurtherKeys)
      readKey(files, path, keys);
    else
      keys.faults.push_back(
          {path, fmt::format("one key too many: {} are read", mostFurtherKeys), E2BIG});
  }
  return keys;
}

}  // namespace corvid
