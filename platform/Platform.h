// Everything the process gets from its system, in one place. main builds one Platform and installs
// it before the first thread; a test builds one from fakes. What else is global keeps nothing of
// clients or files (docs/architecture.md), so that a new Platform starts as a new process.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include "base/ActingUser.h"
#include "base/Mutex.h"
#include "base/Pace.h"
#include "base/TimeValue.h"
#include "base/Value.h"
#include "platform/BundleLoader.h"
#include "platform/Clock.h"
#include "platform/Compressor.h"
#include "platform/Device.h"
#include "platform/ExtensionTokens.h"
#include "platform/FileSystem.h"
#include "platform/HTTPClient.h"
#include "platform/LogShares.h"
#include "platform/Network.h"
#include "platform/Paths.h"
#include "platform/Preferences.h"
#include "platform/Random.h"
#include "platform/RecentKeys.h"
#include "platform/SharedBudget.h"
#include "platform/data/Deployment.h"

namespace corvid {

// An answer that the process computes once, at its first use. Any thread; others wait for it.
template <class T>
class OnceAnswer {
 public:
  template <class F>
  const T& get(F&& compute) {
    std::call_once(_once, [&] {
      _value.emplace(compute());
      _isKnown.store(true, std::memory_order_release);
    });
    return *_value;
  }
  // The answer where it has been computed, else nullptr.
  const T* known() const { return _isKnown.load(std::memory_order_acquire) ? &*_value : nullptr; }

 private:
  std::atomic<bool> _isKnown{false};
  std::once_flag _once;
  std::optional<T> _value;
};

// An answer that holds until it is forgotten, and is computed at its first use. Any thread; others
// wait for it.
template <class T>
class KeptAnswer {
 public:
  template <class F>
  T get(F&& compute) EXCLUDES(_mutex) {
    const MutexLock lock(_mutex);
    if (!_value) _value.emplace(compute());
    return *_value;
  }
  void forget() EXCLUDES(_mutex) {
    const MutexLock lock(_mutex);
    _value.reset();
  }

 private:
  Mutex _mutex;
  std::optional<T> _value GUARDED_BY(_mutex);
};

// The identifiers of clients. The mutex is held while one is made.
struct KnownIdentifiers {
  Mutex mutex;
  // Whose the stored ones are; read at the first use.
  std::optional<RecentKeys> stored GUARDED_BY(mutex);
  Pace<User> pace GUARDED_BY(mutex){64, std::chrono::seconds(1)};  // of storing
  // Those that could not be stored, by key: they hold until the process ends.
  Dictionary unstoredByKey GUARDED_BY(mutex);
  RecentKeys unstored GUARDED_BY(mutex);
};

// The message log: its file as its folder was last found, so that nobody lists a folder that has
// not changed since; and whose its lines are. The mutex is held while a line is written.
struct KnownMessageLog {
  Mutex mutex;
  std::string path GUARDED_BY(mutex);
  std::optional<TimeValue> folderChange GUARDED_BY(mutex);
  LogShares shares GUARDED_BY(mutex);
};

class Platform {
 public:
  // The services, shared so that a test may keep its fakes. All must be set before install.
  struct Services {
    std::shared_ptr<Clock> clock;
    std::shared_ptr<HTTPClient> http;
    std::shared_ptr<Network> network;
    std::shared_ptr<Preferences> preferences;
    std::shared_ptr<DeviceInformationService> deviceInformation;
    std::shared_ptr<LocaleInformation> locale;
    std::shared_ptr<Consent> consent;
    std::shared_ptr<Random> random;
    std::shared_ptr<KeepAlive> keepAlive;
    std::shared_ptr<FileSystem> files;
    std::shared_ptr<ExtensionTokens> extensionTokens;
    std::shared_ptr<BundleLoader> bundles;
    std::shared_ptr<PowerLog> powerLog;
    Paths paths;
    Deployment deployment;
  };

  explicit Platform(Services services)
      : _deployment(std::make_shared<const Deployment>(std::move(services.deployment))),
        _services(std::move(services)) {}

  // The installed Platform. There must be one.
  static Platform& current();
  // `platform` is borrowed until the next install; nullptr takes it away.
  static void install(Platform* platform);

  Clock& clock() { return *_services.clock; }
  HTTPClient& http() { return *_services.http; }
  Network& network() { return *_services.network; }
  Preferences& preferences() { return *_services.preferences; }
  DeviceInformationService& deviceInformation() { return *_services.deviceInformation; }
  LocaleInformation& locale() { return *_services.locale; }
  Consent& consent() { return *_services.consent; }
  Random& random() { return *_services.random; }
  KeepAlive& keepAlive() { return *_services.keepAlive; }
  FileSystem& files() { return *_services.files; }
  ExtensionTokens& extensionTokens() { return *_services.extensionTokens; }
  BundleLoader& bundles() { return *_services.bundles; }
  PowerLog& powerLog() { return *_services.powerLog; }
  const Paths& paths() const { return _services.paths; }

  // What the deployment says now, and from now on. Any thread.
  std::shared_ptr<const Deployment> deployment() const EXCLUDES(_mutex) {
    const MutexLock lock(_mutex);
    return _deployment;
  }
  void setDeployment(Deployment deployment) EXCLUDES(_mutex) {
    auto changed = std::make_shared<const Deployment>(std::move(deployment));
    {
      const MutexLock lock(_mutex);
      _deployment.swap(changed);
    }
    storebagServerURL.forget();
  }

  // Answers computed once per process.
  OnceAnswer<Sourced<bool>> internalBuild;
  OnceAnswer<Sourced<std::uint32_t>> environmentType;
  // And until the deployment is another.
  KeptAnswer<std::string> storebagServerURL;
  KnownIdentifiers identifiers;
  KnownMessageLog messageLog;

  Budgets budgets;
  Compressor compressor;

 private:
  mutable Mutex _mutex;
  std::shared_ptr<const Deployment> _deployment GUARDED_BY(_mutex);
  Services _services;
};

}  // namespace corvid
