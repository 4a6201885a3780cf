#include "tests/fakes/TestPlatform.h"

namespace corvid {

TestPlatform::TestPlatform() {
  device->set("ProductVersion", "12.3");
  device->set("BuildVersion", "20F71");
  device->set("ProductType", "Robin5,2");
  device->set("DeviceName", "Robin");
  device->set("HWModelStr", "R52AP");
  device->set("SerialNumber", "C0RV1D000001");
  device->set("UniqueDeviceID", "0123456789abcdef0123456789abcdef01234567");
  restart();
}

TestPlatform::~TestPlatform() { Platform::install(nullptr); }

Platform::Services TestPlatform::services() const {
  return {
      .clock = clock,
      .http = http,
      .network = network,
      .preferences = preferences,
      .deviceInformation = device,
      .locale = locale,
      .consent = consent,
      .random = random,
      .keepAlive = keepAlive,
      .files = files,
      .extensionTokens = extensionTokens,
      .bundles = bundles,
      .powerLog = powerLog,
      .paths = _paths,
      .deployment = _deployment,
  };
}

void TestPlatform::restart() {
  _platform = std::make_unique<Platform>(services());
  Platform::install(_platform.get());
}

void TestPlatform::restart(Paths paths, Deployment deployment) {
  _paths = std::move(paths);
  _deployment = std::move(deployment);
  restart();
}

}  // namespace corvid
