// Small fakes of the system services; each is set by the test and says what it was asked.
#pragma once

#include <atomic>
#include <map>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "platform/Device.h"
#include "platform/Preferences.h"
#include "platform/Random.h"

namespace corvid {

class FakePreferences final : public Preferences {
 public:
  std::optional<Value> value(std::string_view suite, std::string_view key) override {
    std::lock_guard lock(_mutex);
    const Value* found = _suites[std::string(suite)].find(key);
    return found ? std::optional<Value>(*found) : std::nullopt;
  }
  bool setValue(std::string_view suite, std::string_view key, Value value) override {
    std::lock_guard lock(_mutex);
    if (!isWritable) return false;
    _suites[std::string(suite)].set(std::string(key), std::move(value));
    return true;
  }
  bool removeValue(std::string_view suite, std::string_view key) override {
    std::lock_guard lock(_mutex);
    _suites[std::string(suite)].erase(key);
    return true;
  }
  std::vector<std::string> keys(std::string_view suite) override {
    std::lock_guard lock(_mutex);
    std::vector<std::string> keys;
    for (const auto& entry : _suites[std::string(suite)]) keys.push_back(entry.key);
    return keys;
  }

  std::atomic<bool> isWritable{true};

 private:
  std::mutex _mutex;
  std::map<std::string, Dictionary> _suites;
};

class FakeDeviceInformation final : public DeviceInformationService {
 public:
  DeviceAnswer answer(std::string_view key) override {
    std::lock_guard lock(_mutex);
    ++_asked[std::string(key)];
    const auto found = _answers.find(std::string(key));
    return found == _answers.end() ? DeviceAnswer{} : DeviceAnswer{found->second, "device.plist"};
  }
  void set(std::string key, std::string answer) {
    std::lock_guard lock(_mutex);
    _answers[std::move(key)] = std::move(answer);
  }
  void remove(const std::string& key) {
    std::lock_guard lock(_mutex);
    _answers.erase(key);
  }
  int timesAsked(const std::string& key) {
    std::lock_guard lock(_mutex);
    return _asked[key];
  }

 private:
  std::mutex _mutex;
  std::map<std::string, std::string> _answers;
  std::map<std::string, int> _asked;
};

class FakeLocale final : public LocaleInformation {
 public:
  DeviceAnswer countryAnswer() override { return {country, country ? "LANG" : ""}; }
  Sourced<std::int32_t> timeZoneOffset(const TimeValue& at) override {
    askedFor = at.seconds;
    return {offset, "TZ"};
  }
  std::optional<std::string> country = "US";
  std::int32_t offset = 3600;
  std::atomic<std::int64_t> askedFor{0};  // the last moment whose offset was wanted
};

class FakeConsent final : public Consent {
 public:
  Sourced<bool> diagnosticsSubmission() override { return {allowed, "preference"}; }
  std::string getPersistentIdentifierForDNU(bool respectsConsent) override {
    return respectsConsent ? "RESPECTED-ID" : "OVERRIDE-ID";
  }
  bool allowed = true;
};

// UUIDs count up from 1; draws come from `draw`.
class FakeRandom final : public Random {
 public:
  UUIDBytes uuid() override {
    UUIDBytes bytes{};
    const unsigned number = ++_uuids;
    bytes[15] = static_cast<std::uint8_t>(number);
    bytes[14] = static_cast<std::uint8_t>(number >> 8);
    return bytes;
  }
  double uniform() override { return draw; }
  std::atomic<double> draw{0.5};

 private:
  std::atomic<unsigned> _uuids{0};
};

class FakePowerLog final : public PowerLog {
 public:
  struct Record {
    std::uint32_t subsystem;
    std::string event;
    Dictionary payload;
  };
  void logRegisteredEvent(std::uint32_t subsystem, std::string_view event,
                          const Dictionary& payload) override {
    std::lock_guard lock(_mutex);
    _records.push_back({subsystem, std::string(event), payload});
  }
  std::vector<Record> records() {
    std::lock_guard lock(_mutex);
    return _records;
  }

 private:
  std::mutex _mutex;
  std::vector<Record> _records;
};

class FakeKeepAlive final : public KeepAlive {
 public:
  void beginTransaction() override { ++begun; }
  void endTransaction() override { ++ended; }
  std::atomic<int> begun{0};
  std::atomic<int> ended{0};
};

}  // namespace corvid
