// The common base of everything that a session forwards events to.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "base/Mutex.h"
#include "base/TimeValue.h"
#include "base/Value.h"
#include "protocol/Reply.h"

namespace corvid {

class ExchangeGate;

// Reporting state of a backend. Sessions treat sending and held as reporting.
enum class BackendState : std::int32_t {
  waiting = 0,   // not evaluated yet, or user info is awaited
  disabled = 1,  // nothing leaves the device
  sending = 2,
  held = 3,  // sampled out for now: events are kept, a flagged one lifts it to sending
};

// Of an event. Bit 0 asks for realtime delivery, bit 1 lifts a held backend to sending.
enum class MessageFlag : std::int32_t {};
// Number of an event within its backend; wraps from 65535 to 0.
enum class EventID : std::uint16_t {};

using FlushCompletion =
    std::function<void(std::optional<std::string> result, std::optional<CorvidError> error)>;

// Holds the per-backend copy of the session's identity, its reporting state and its sampling
// values, and defines every operation that a session calls. The operations here do nothing and say
// so; a concrete backend overrides those it supports.
//
// Threads   Events, flushes and uploads come from the session's connection thread, one after the
//           other. State, threshold and combined session ID may also be set by another session of
//           the same chain, and `state` by an HTTP completion: every accessor is therefore safe
//           from any thread. `_lock` guards the fields; it is never held across an exchange.
// Ownership Shared by the session's backend table and by exchanges under way (weakly).
class CorvidBackend : public std::enable_shared_from_this<CorvidBackend> {
 public:
  virtual ~CorvidBackend() = default;
  CorvidBackend(const CorvidBackend&) = delete;
  CorvidBackend& operator=(const CorvidBackend&) = delete;

  // The concrete backend for one entry of a storebag section. Nothing for an unknown name (logged)
  // or a profile that the backend refuses. `profile` is null where the entry is no dictionary;
  // `productFamily` is absent where the device has no answer.
  static std::shared_ptr<CorvidBackend> newBackendWithName(
      const std::string& name, const Dictionary* profile,
      const std::optional<std::string>& productFamily, std::int32_t clientType);

  // 64 lower-case hexadecimal digits: SHA-256 over as many of the text's UTF-8 bytes as it has
  // UTF-16 code units (all of them for ASCII text).
  static std::string convertIntoSHA256(std::string_view text);

  // What bounds its exchanges with those of the client's other backends. Before the first event;
  // without one a backend has its own.
  virtual void setExchangeGate(std::shared_ptr<ExchangeGate>) {}
  // Releases what the backend holds outside its fields before it is dropped.
  virtual void cleanup() {}
  // Takes major and minor from the first two components of a text such as "8.0".
  void setSelfVersion(std::string_view version);
  // Computes `state` anew.
  virtual void updateState() { setState(BackendState::sending); }

  // Sends one event; answers with the text for the local message log, where there is one.
  virtual std::optional<std::string> sendMessage(const Dictionary* payload,
                                                 const TimeValue& timestamp, std::uint16_t method,
                                                 std::uint16_t respCode, EventID eventID,
                                                 MessageFlag flag);
  void setStartTimestamp(const TimeValue& timestamp);
  // The session's entry: numbers the event and sends it. `payload` may be null.
  std::optional<std::string> sendMessage(const Dictionary* payload, const TimeValue& timestamp,
                                         std::uint16_t method, std::uint16_t respCode,
                                         MessageFlag flag);
  // Pushes out what is held. `completion` may be empty; it is called once, on any thread.
  virtual std::optional<std::string> flushMessagesWithCompletion(FlushCompletion completion);
  virtual bool uploadFileAtPath(const std::string& path, const std::string& extensionToken);
  virtual bool uploadLogData(const Array& logData);
  virtual void setCorrelatedSessionID(std::string sessionID);

  BackendState state() const { return _state.load(std::memory_order_relaxed); }
  void setState(BackendState state) { _state.store(state, std::memory_order_relaxed); }
  std::uint32_t sessionID() const;
  void setSessionID(std::uint32_t sessionID);
  std::optional<std::string> combinedSessionIDString() const;
  void setCombinedSessionIDString(std::string sessionID);
  std::int32_t hierarchy() const;
  void setHierarchy(std::int32_t hierarchy);
  std::int32_t compType() const;
  void setCompType(std::int32_t compType);
  std::uint16_t clientVersion() const;
  void setClientVersion(std::uint16_t clientVersion);
  // Neither copied nor owned: whoever sets it keeps it alive as long as the backend.
  const char* udid() const;
  void setUdid(const char* udid);
  const std::string& name() const { return _name; }
  std::optional<std::string> displayURL() const;
  void setDisplayURL(std::optional<std::string> displayURL);
  std::optional<std::string> productVersion() const;
  void setProductVersion(std::optional<std::string> productVersion);
  std::optional<std::string> buildVersion() const;
  void setBuildVersion(std::optional<std::string> buildVersion);
  std::optional<std::string> hardwareType() const;
  void setHardwareType(std::optional<std::string> hardwareType);
  std::optional<std::string> productFamily() const;
  void setProductFamily(std::optional<std::string> productFamily);
  bool isInternal() const;
  void setIsInternal(bool isInternal);
  std::optional<Dictionary> userInfoDict() const;
  virtual void setUserInfoDict(std::optional<Dictionary> userInfoDict);
  bool requireUserInfo() const;
  void setRequireUserInfo(bool requireUserInfo);
  bool batchEvents() const;
  void setBatchEvents(bool batchEvents);
  double samplingFactor() const;
  void setSamplingFactor(double samplingFactor);
  std::optional<double> samplingThreshold() const;
  void setSamplingThreshold(std::optional<double> samplingThreshold);

 protected:
  // Draws the sampling factor.
  CorvidBackend(std::string name, Dictionary profile, std::optional<std::string> productFamily);

  mutable RecursiveMutex _lock;

  // Constant after construction.
  const std::string _name;
  const Dictionary _profile;

  std::atomic<BackendState> _state{BackendState::waiting};
  std::optional<std::string> _productVersion GUARDED_BY(_lock);
  std::optional<std::string> _buildVersion GUARDED_BY(_lock);
  std::optional<std::string> _hardwareType GUARDED_BY(_lock);
  std::optional<std::string> _productFamily GUARDED_BY(_lock);
  double _startTimeStamp GUARDED_BY(_lock) = 0;
  std::uint32_t _sessionID GUARDED_BY(_lock) = 0;
  std::optional<std::string> _combinedSessionIDString GUARDED_BY(_lock);
  std::int32_t _hierarchy GUARDED_BY(_lock) = 0;
  std::int32_t _compType GUARDED_BY(_lock) = 0;
  std::uint16_t _clientVersion GUARDED_BY(_lock) = 0;
  std::uint16_t _eventID GUARDED_BY(_lock) = 0;
  std::uint8_t _selfVersionMajor GUARDED_BY(_lock) = 0;
  std::uint8_t _selfVersionMinor GUARDED_BY(_lock) = 0;
  bool _isInternal GUARDED_BY(_lock) = false;
  bool _requireUserInfo GUARDED_BY(_lock) = false;
  std::optional<Dictionary> _userInfoDict GUARDED_BY(_lock);
  bool _batchEvents GUARDED_BY(_lock) = false;
  const char* _udid GUARDED_BY(_lock) = nullptr;
  std::optional<std::string> _displayURL GUARDED_BY(_lock);
  double _samplingFactor GUARDED_BY(_lock) = 0;
  std::optional<double> _samplingThreshold GUARDED_BY(_lock);
};

}  // namespace corvid
