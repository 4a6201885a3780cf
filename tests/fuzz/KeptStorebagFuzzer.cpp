// The file of a kept storebag, as whoever can write to the daemon's folder would have it: read at
// the start of a process, then renewed by an answer that nothing has changed.
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <string>
#include <string_view>

#include "config/Environment.h"
#include "config/KeptStorebags.h"
#include "tests/fakes/TestPlatform.h"
#include "tests/fuzz/Require.h"
#include "tests/fuzz/SignedStorebag.h"
#include "tests/support/Scratch.h"

namespace {

using namespace corvid;
using fuzz::require;

constexpr std::int32_t lumenClient = 5;
constexpr double renewed = 4000;

// A process of a device that keeps storebags below this folder.
class Device {
 public:
  explicit Device(const ScratchFolder& root) : _paths(root.path()) {
    Deployment deployment;
    deployment.keepStorebags = true;
    _platform.restart(_paths, deployment);
    _platform.files->files[_paths.publicKeyFile] = {fuzz::publicKeyOfSignedStorebag(), {}};
  }
  std::string file() const { return _paths.storebagsFolder + "/lumen.plist"; }
  std::size_t errors() const { return _platform.log.texts(LogLevel::error).size(); }

 private:
  const Paths _paths;
  TestPlatform _platform;
};

// Only what is signed gets in, whatever stands around it.
void requireSigned(const KeptStorebag& kept) {
  require(kept.fetched.storebag == *fuzz::signedStorebag().find("release")->dictionary());
  require(kept.fetched.version == "7.1");
  require(kept.fetched.url == storebagURL("lumen"));
  require(std::isfinite(kept.fetchTime));
  require(kept.fetched.key && !kept.fetched.fault && !kept.fetched.notModified);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static const ScratchFolder root;
  const std::string content(reinterpret_cast<const char*>(data), size);
  const Device device(root);
  const std::string aside = device.file() + ".damaged";
  std::filesystem::remove(aside);
  root.write("var/lib/corvidd/Storebags/lumen.plist", content);

  const auto kept = keptStorebag(lumenClient);
  const bool isThere = std::filesystem::exists(device.file());
  // Whatever is not passed over is set aside as it was, with one line.
  require(isThere != std::filesystem::exists(aside));
  require(contentOf(isThere ? device.file() : aside) == content);
  require(device.errors() == (isThere ? 0 : 1));
  if (!kept) {
    require(!keptStorebag(lumenClient) && device.errors() == (isThere ? 0 : 1));
    return 0;
  }
  requireSigned(*kept);
  require(isThere);
  keepStorebag("lumen", {.maxAge = 60, .notModified = true}, renewed);
  const auto again = keptStorebag(lumenClient);
  require(again.has_value());
  requireSigned(*again);
  require(again->fetchTime == renewed && again->fetched.maxAge == 60);
  require(again->fetched.lastModified == kept->fetched.lastModified);
  return 0;
}
