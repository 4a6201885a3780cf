#include "tests/support/SigningKeys.h"

#include <fmt/format.h>
#include <unistd.h>

#include <filesystem>

#include "tools/lab/StorebagSigner.h"

namespace corvid {

namespace fs = std::filesystem;

std::string signingKeyFile(std::string_view name) {
  const std::string path = fmt::format("{}/{}.pem", CORVID_SIGNING_KEYS, name);
  if (!fs::exists(path)) {
    fs::create_directories(CORVID_SIGNING_KEYS);
    const std::string own = fmt::format("{}.{}", path, getpid());
    const lab::StorebagSigner made(own);
    std::error_code otherWasFirst;
    fs::create_hard_link(own, path, otherWasFirst);
    fs::remove(own);
  }
  return path;
}

}  // namespace corvid
