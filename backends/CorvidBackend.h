// The common base of everything that a session forwards events to.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "backends/BackendIdentity.h"
#include "base/Mutex.h"
#include "base/TimeValue.h"
#include "base/Value.h"
#include "protocol/Reason.h"
#include "protocol/Reply.h"
#include "status/Ledger.h"

namespace corvid {

class ExchangeGate;
class Platform;

// Reporting state of a backend. Sessions treat sending and held as reporting.
enum class BackendState : std::uint8_t {
  waiting = 0,   // not evaluated yet, or user info is awaited
  disabled = 1,  // nothing leaves the device
  sending = 2,
  held = 3,  // sampled out for now: events are kept, a flagged one lifts it to sending
};

// As operators read it: waiting, disabled, sending or held.
std::string_view wordOf(BackendState state);

// Of an event. Bit 0 asks for realtime delivery, bit 1 lifts a held backend to sending.
enum class MessageFlag : std::int32_t {};
// Number of an event within its backend; wraps from 65535 to 0.
enum class EventID : std::uint16_t {};

using FlushCompletion =
    std::function<void(std::optional<std::string> result, std::optional<CorvidError> error)>;

using SharedDictionary = std::shared_ptr<const Dictionary>;

// Holds the session's identity, what of the session changes over its life, and the reporting state,
// and defines every operation that a session calls. The operations here do nothing and say so; a
// concrete backend overrides those it supports.
//
// Threads   Events, flushes and uploads come from the session's connection thread, one after the
//           other. State, threshold and combined session ID may also be set by another session of
//           the same chain, and `state` by an HTTP completion: every accessor is therefore safe
//           from any thread.
// Locks     `_lock` guards the fields that say so, of concrete backends too; it is never held
//           across a call out of the backend.
// Ownership Shared by the session's backend table and by exchanges under way (weakly).
class CorvidBackend : public std::enable_shared_from_this<CorvidBackend> {
 public:
  virtual ~CorvidBackend() = default;
  CorvidBackend(const CorvidBackend&) = delete;
  CorvidBackend& operator=(const CorvidBackend&) = delete;

  // The concrete backend for one entry of a storebag section. Nothing for an unknown name (logged)
  // or a profile that the backend refuses. `profile` is null where the entry is no dictionary.
  static std::shared_ptr<CorvidBackend> newBackendWithName(const std::string& name,
                                                           const Dictionary* profile,
                                                           const SharedIdentity& identity);

  // 64 lower-case hexadecimal digits: SHA-256 over as many of the text's UTF-8 bytes as it has
  // UTF-16 code units (all of them for ASCII text).
  static std::string convertIntoSHA256(std::string_view text);

  // What bounds its exchanges with those of the client's other backends. Before the first event;
  // without one a backend has its own.
  virtual void setExchangeGate(std::shared_ptr<ExchangeGate>) {}
  // Where it says what became of its events. Before the first event; without one a backend has its
  // own.
  void setAccount(std::shared_ptr<LedgerAccount> account) { _account = std::move(account); }
  const LedgerAccount& account() const { return *_account; }
  // Called after each change of state or reason, on the thread that makes it and with its locks.
  // Before the first state.
  void setStandingObserver(std::function<void()> changed) { _standingChanged = std::move(changed); }
  // Releases what the backend holds outside its fields before it is dropped.
  virtual void cleanup() {}
  // Computes `state` anew.
  virtual void updateState() { settle(BackendState::sending, Reason::takesNoEvents); }

  // Sends one event; answers with the text for the local message log, where there is one.
  virtual std::optional<std::string> sendMessage(const Dictionary* payload,
                                                 const TimeValue& timestamp, std::uint16_t method,
                                                 std::uint16_t respCode, EventID eventID,
                                                 MessageFlag flag);
  // The session's entry: numbers the event and sends it. `payload` may be null; `mark` is the
  // ledger's.
  std::optional<std::string> sendMessage(const Dictionary* payload, const TimeValue& timestamp,
                                         std::uint16_t method, std::uint16_t respCode,
                                         MessageFlag flag, EventMark mark = {});
  // Pushes out what is held. `completion` may be empty; it is called once, on any thread.
  virtual std::optional<std::string> flushMessagesWithCompletion(FlushCompletion completion);
  virtual bool uploadFileAtPath(const std::string& path, const std::string& extensionToken);
  virtual bool uploadLogData(const Array& logData);
  virtual void setCorrelatedSessionID(std::string sessionID);

  const std::string& name() const { return _name; }
  const BackendIdentity& identity() const { return *_identity; }
  // Where the backend's data can be looked at.
  const std::optional<std::string>& displayURL() const { return _displayURL; }
  // Drawn at creation, in [0, 1).
  double samplingFactor() const { return _samplingFactor; }

  // A state and why it is that.
  // Aligned so that clang makes an atomic of it without its library.
  struct alignas(2) Standing {
    BackendState state = BackendState::waiting;
    Reason reason = Reason::notConfigured;
    bool operator==(const Standing&) const = default;
  };
  Standing standing() const { return _standing.load(std::memory_order_relaxed); }
  BackendState state() const { return standing().state; }
  void setState(BackendState state, Reason reason = Reason::reporting) {
    const Standing now{state, reason};
    if (_standing.exchange(now, std::memory_order_relaxed) != now) standingChanged();
  }
  // The same, and counts what keeps events back.
  void settle(BackendState state, Reason reason) {
    setState(state, reason);
    if (reason != Reason::reporting) _account->countSilence(reason);
  }
  // Takes over how the same backend of another session stands.
  virtual void takeOver(Standing standing) { setState(standing.state, standing.reason); }
  // The session whose backend this one takes its state from, by the ledger's number; 0: none.
  std::uint64_t followed() const { return _followed.load(std::memory_order_relaxed); }
  void setFollowed(std::uint64_t session) { _followed = session; }
  // The index of the storebag's entry that decided, where one did.
  virtual std::optional<std::size_t> entry() const { return std::nullopt; }
  // What the events that it holds take in memory.
  virtual std::size_t heldBytes() const { return 0; }
  // Level in the chain of sessions, 0 at the top.
  std::int32_t hierarchy() const { return _hierarchy.load(std::memory_order_relaxed); }
  void setHierarchy(std::int32_t hierarchy) { _hierarchy = hierarchy; }
  std::optional<std::string> combinedSessionIDString() const EXCLUDES(_lock);
  void setCombinedSessionIDString(std::string sessionID) EXCLUDES(_lock);
  // Null where there is none.
  SharedDictionary userInfoDict() const EXCLUDES(_lock);
  void setUserInfoDict(SharedDictionary userInfoDict) EXCLUDES(_lock);
  std::optional<double> samplingThreshold() const EXCLUDES(_lock);
  void setSamplingThreshold(std::optional<double> samplingThreshold) EXCLUDES(_lock);

 protected:
  // On the Platform that is installed. Draws the sampling factor.
  CorvidBackend(std::string name, Dictionary profile, SharedIdentity identity,
                std::optional<std::string> displayURL = std::nullopt);

  void standingChanged() const {
    if (_standingChanged) _standingChanged();
  }

  // Constant after construction.
  Platform& _platform;
  const std::string _name;
  const Dictionary _profile;
  const SharedIdentity _identity;
  const std::optional<std::string> _displayURL;
  const double _samplingFactor;

  std::shared_ptr<LedgerAccount> _account;
  std::function<void()> _standingChanged;
  EventMark _offered;  // of the event that is being sent; sends do not overlap

  std::atomic<Standing> _standing{Standing{}};
  std::atomic<std::uint64_t> _followed{0};
  std::atomic<std::int32_t> _hierarchy{0};
  std::atomic<std::uint16_t> _eventID{0};  // of the latest event

  mutable Mutex _lock;
  std::optional<std::string> _combinedSessionIDString GUARDED_BY(_lock);
  SharedDictionary _userInfoDict GUARDED_BY(_lock);
  std::optional<double> _samplingThreshold GUARDED_BY(_lock);
};

}  // namespace corvid
