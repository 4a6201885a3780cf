// What the process asks of the device and its user, and tells them. Every operation: any thread.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "base/TimeValue.h"
#include "base/Value.h"

namespace corvid {

// A value and what said so, as people are told. The source is a literal, one of: device.plist,
// os-release, DMI, device tree, machine-info, chassis, architecture, LC_ALL,
// LC_MESSAGES, LANG, locale.conf, TZ, system, preference, default; empty where nothing answered.
template <class T>
struct Sourced {
  T value{};
  std::string_view source;
  bool operator==(const Sourced&) const = default;
};
using DeviceAnswer = Sourced<std::optional<std::string>>;

// Answers questions about the device by key: "ProductVersion", "BuildVersion", "ProductType",
// "DeviceName", "HWModelStr", "SerialNumber", "UniqueDeviceID", "ReleaseType".
class DeviceInformationService {
 public:
  virtual ~DeviceInformationService() = default;
  // Without a value when the service has no answer for the key.
  virtual DeviceAnswer answer(std::string_view key) = 0;
};

// The system's current locale and time zone.
class LocaleInformation {
 public:
  virtual ~LocaleInformation() = default;
  // The territory of the locale, such as "DE"; nothing where the locale names none.
  std::optional<std::string> countryCode() { return countryAnswer().value; }
  virtual DeviceAnswer countryAnswer() = 0;
  // Offset of local time from GMT at that moment, in seconds, east positive.
  std::int32_t secondsFromGMT(const TimeValue& at) { return timeZoneOffset(at).value; }
  virtual Sourced<std::int32_t> timeZoneOffset(const TimeValue& at) = 0;
};

// The user's consent to diagnostics submission, and the identifiers that go with it.
class Consent {
 public:
  virtual ~Consent() = default;
  // Whether the user lets diagnostics leave the device. Without a recorded answer: no.
  bool diagnosticsSubmissionAllowed() { return diagnosticsSubmission().value; }
  virtual Sourced<bool> diagnosticsSubmission() = 0;
  // A stable identifier of this device: with true the one that respects the consent, with false
  // the one that overrides it.
  virtual std::string getPersistentIdentifierForDNU(bool respectsConsent) = 0;
};

// Where the device keeps what it knows about its use of power.
class PowerLog {
 public:
  virtual ~PowerLog() = default;
  // Records an event of a subsystem. Does not wait; what cannot be recorded is lost.
  virtual void logRegisteredEvent(std::uint32_t subsystem, std::string_view event,
                                  const Dictionary& payload) = 0;
};

// While a transaction is open the launcher must not end the idle process.
class KeepAlive {
 public:
  virtual ~KeepAlive() = default;
  virtual void beginTransaction() = 0;
  virtual void endTransaction() = 0;
};

}  // namespace corvid
