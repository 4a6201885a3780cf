// A process made of fakes: installed for the fixture's lifetime, with a captured log.
#pragma once

#include <memory>

#include "platform/Platform.h"
#include "protocol/Limits.h"
#include "tests/fakes/CapturedLog.h"
#include "tests/fakes/FakeBundles.h"
#include "tests/fakes/FakeClock.h"
#include "tests/fakes/FakeFileSystem.h"
#include "tests/fakes/FakeHTTPClient.h"
#include "tests/fakes/FakeNetwork.h"
#include "tests/fakes/FakeServices.h"

namespace corvid {

// Device answers are those of an ordinary device ("ProductType" "Robin5,2", no "ReleaseType"); the
// paths lie below a root that does not exist.
struct TestPlatform {
  TestPlatform();
  ~TestPlatform();
  TestPlatform(const TestPlatform&) = delete;
  TestPlatform& operator=(const TestPlatform&) = delete;

  // All of the below.
  Platform::Services services() const;
  // Starts a new process with the same services: the once-only answers are computed anew.
  void restart();
  // The same with other paths or deployment settings.
  void restart(Paths paths, Deployment deployment);

  CapturedLog log;
  std::shared_ptr<FakeClock> clock = std::make_shared<FakeClock>();
  std::shared_ptr<FakeHTTPClient> http = std::make_shared<FakeHTTPClient>();
  std::shared_ptr<FakeNetwork> network = std::make_shared<FakeNetwork>(clock);
  std::shared_ptr<FakePreferences> preferences = std::make_shared<FakePreferences>();
  std::shared_ptr<FakeDeviceInformation> device = std::make_shared<FakeDeviceInformation>();
  std::shared_ptr<FakeLocale> locale = std::make_shared<FakeLocale>();
  std::shared_ptr<FakeConsent> consent = std::make_shared<FakeConsent>();
  std::shared_ptr<FakeRandom> random = std::make_shared<FakeRandom>();
  std::shared_ptr<FakeKeepAlive> keepAlive = std::make_shared<FakeKeepAlive>();
  std::shared_ptr<FakeFileSystem> files = std::make_shared<FakeFileSystem>(clock);
  std::shared_ptr<ExtensionTokens> extensionTokens =
      std::make_shared<ExtensionTokens>(random, limits::uploadBytesUnderWay);
  std::shared_ptr<FakeBundleLoader> bundles = std::make_shared<FakeBundleLoader>();
  std::shared_ptr<FakePowerLog> powerLog = std::make_shared<FakePowerLog>();

 private:
  Paths _paths{"/nonexistent/root"};
  Deployment _deployment;
  std::unique_ptr<Platform> _platform;
};

}  // namespace corvid
