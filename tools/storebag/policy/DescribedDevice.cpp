#include "tools/storebag/policy/DescribedDevice.h"

#include <cerrno>
#include <utility>

#include "protocol/Limits.h"

namespace corvid::storebag {

namespace {

class StillClock final : public Clock {
 public:
  TimeValue now() override { return {}; }
  TimePoint steadyNow() override { return {}; }
  std::chrono::nanoseconds sleepTowards(TimePoint) override { return {}; }
};

class DescribedPreferences final : public Preferences {
 public:
  explicit DescribedPreferences(CorvidEnvironmentType environment) {
    setValue(corvidSuite, "environmentType", static_cast<std::uint32_t>(environment));
  }
  std::optional<Value> value(std::string_view suite, std::string_view key) override {
    const Value* const found = _entries.find(keyOf(suite, key));
    return found ? std::optional(*found) : std::nullopt;
  }
  bool setValue(std::string_view suite, std::string_view key, Value value) override {
    _entries.set(keyOf(suite, key), std::move(value));
    return true;
  }
  bool removeValue(std::string_view suite, std::string_view key) override {
    return _entries.erase(keyOf(suite, key));
  }
  std::vector<std::string> keys(std::string_view) override { return {}; }

 private:
  static std::string keyOf(std::string_view suite, std::string_view key) {
    return std::string(suite).append("\n").append(key);
  }
  Dictionary _entries;
};

class DescribedAnswers final : public DeviceInformationService {
 public:
  explicit DescribedAnswers(const Facts& facts) : _facts(facts) {}
  DeviceAnswer answer(std::string_view key) override {
    if (key == "ProductVersion") return from(_facts.productVersion);
    if (key == "BuildVersion") return from(_facts.buildVersion);
    if (key == "ProductType") return from(_facts.hardwareType);
    if (key == "DeviceName") return from(_facts.productFamily);
    if (key == "ReleaseType" && _facts.isInternal) return from("Internal");
    return {};
  }

 private:
  static DeviceAnswer from(std::optional<std::string> text) {
    return {std::move(text), "device.plist"};
  }
  const Facts _facts;
};

class DescribedLocale final : public LocaleInformation {
 public:
  explicit DescribedLocale(const Facts& facts)
      : _country(facts.country), _offset(facts.timeZoneOffset) {}
  DeviceAnswer countryAnswer() override { return {_country, "LANG"}; }
  Sourced<std::int32_t> timeZoneOffset(const TimeValue&) override { return {_offset, "TZ"}; }

 private:
  const std::optional<std::string> _country;
  const std::int32_t _offset;
};

class DescribedConsent final : public Consent {
 public:
  explicit DescribedConsent(bool consents) : _consents(consents) {}
  Sourced<bool> diagnosticsSubmission() override { return {_consents, "preference"}; }
  // Of nobody, but there: without one no message would hold its records.
  std::string getPersistentIdentifierForDNU(bool) override { return {}; }

 private:
  const bool _consents;
};

class DescribedDraw final : public Random {
 public:
  explicit DescribedDraw(double draw) : _draw(draw) {}
  UUIDBytes uuid() override { return {}; }
  double uniform() override { return _draw; }

 private:
  const double _draw;
};

class NoFiles final : public FileSystem {
 public:
  Result<std::vector<std::string>> listDirectory(const std::string&) override { return missing(); }
  bool createDirectories(const std::string&) override { return false; }
  std::optional<TimeValue> creationDate(const std::string&) override { return std::nullopt; }
  std::optional<TimeValue> changeDate(const std::string&) override { return std::nullopt; }
  std::size_t size(const std::string&) override { return 0; }
  void createFile(const std::string&) override {}
  bool exists(const std::string&) override { return false; }
  std::optional<Failure> append(const std::string&, const std::vector<std::string_view>&) override {
    return missing();
  }
  std::size_t endOfLine(const std::string&, std::size_t from, std::size_t) override { return from; }
  std::optional<Failure> removeRanges(const std::string&, const std::vector<ByteRange>&) override {
    return missing();
  }
  Result<std::string> readFile(const std::string&, std::size_t) override { return missing(); }
  Result<std::shared_ptr<UnnamedFile>> createUnnamedFile(const std::string&) override {
    return missing();
  }
  void remove(const std::string&) override {}

 private:
  static Failure missing() { return {"No such file or directory", ENOENT}; }
};

class NoBundles final : public BundleLoader {
 public:
  std::shared_ptr<const Bundle> performanceBundle() override { return nullptr; }
};

class NoPowerLog final : public PowerLog {
 public:
  void logRegisteredEvent(std::uint32_t, std::string_view, const Dictionary&) override {}
};

class NoKeepAlive final : public KeepAlive {
 public:
  void beginTransaction() override {}
  void endTransaction() override {}
};

// What an address must be for a device to make a dashboard, and nothing more.
class UnconnectedSocket final : public DatagramSocket {
 public:
  int bindToAnyPort() override { return 0; }
  int connect(std::uint32_t address, std::uint16_t) override {
    return address == ipv4AddressFromText("") ? EACCES : 0;
  }
  bool send(std::string_view) override { return true; }
  std::optional<std::size_t> receive(std::span<char>) override { return std::nullopt; }
  int descriptor() const override { return -1; }
};

class IdleTimer final : public Timer {
 public:
  void cancel() override {}
  void setArmed(bool) override {}
  void keepAlive(std::shared_ptr<void>) override {}
};

class IdleQueue final : public SerialQueue {
 public:
  void async(Task) override {}
  std::unique_ptr<Source> after(std::chrono::milliseconds, Task) override {
    return std::make_unique<IdleTimer>();
  }
  std::unique_ptr<Timer> createTimer(std::chrono::milliseconds, Task, Task) override {
    return std::make_unique<IdleTimer>();
  }
  std::unique_ptr<Source> createReadSource(DatagramSocket&, Task, Task) override {
    return std::make_unique<IdleTimer>();
  }
};

class IdleNetwork final : public Network {
 public:
  std::shared_ptr<SerialQueue> createQueue(std::string) override {
    return std::make_shared<IdleQueue>();
  }
  Result<std::unique_ptr<DatagramSocket>> openDatagramSocket() override {
    return std::unique_ptr<DatagramSocket>(std::make_unique<UnconnectedSocket>());
  }
  bool isBusy() const override { return false; }
};

Platform::Services servicesOf(const Facts& facts, std::shared_ptr<HTTPClient> http) {
  Platform::Services services;
  services.clock = std::make_shared<StillClock>();
  services.http = std::move(http);
  services.network = std::make_shared<IdleNetwork>();
  services.preferences = std::make_shared<DescribedPreferences>(facts.environment);
  services.deviceInformation = std::make_shared<DescribedAnswers>(facts);
  services.locale = std::make_shared<DescribedLocale>(facts);
  services.consent = std::make_shared<DescribedConsent>(facts.consents);
  services.random = std::make_shared<DescribedDraw>(facts.draw);
  services.keepAlive = std::make_shared<NoKeepAlive>();
  services.files = std::make_shared<NoFiles>();
  services.extensionTokens =
      std::make_shared<ExtensionTokens>(services.random, limits::uploadBytesUnderWay);
  services.bundles = std::make_shared<NoBundles>();
  services.powerLog = std::make_shared<NoPowerLog>();
  return services;
}

}  // namespace

DescribedDevice::DescribedDevice(const Facts& facts) : _platform(servicesOf(facts, _http)) {
  Platform::install(&_platform);
}

DescribedDevice::~DescribedDevice() { Platform::install(nullptr); }

}  // namespace corvid::storebag
