// Posts event records as JSON over HTTPS.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "backends/CorvidBackend.h"
#include "backends/https/ClientPolicy.h"
#include "backends/https/EventPoster.h"
#include "backends/https/EventRecord.h"
#include "backends/https/HeldRecords.h"
#include "backends/https/MethodCounts.h"

namespace corvid {

// The storebag's entry for the client decides whether records may leave the device, where to and in
// which form (ClientPolicy). A record is posted at once (EventPoster) or held, oldest first, until
// a flush. A batch that is full is flushed before its time; where it may not be flushed it drops
// its oldest records (HeldRecords says when it is full).
//
// Threads   As the base says. Sends, flushes and updates of one backend do not overlap;
//           setCorrelatedSessionID and the properties may come in between from any thread.
//           A send or a flush blocks as EventPoster says. Completions of exchanges set `state`
//           only, and only while the backend lives.
// Locks     The base's, for the policy and the batch; taken once a step, never across a post or a
//           completion.
class HTTPSPostBackend final : public CorvidBackend {
  struct Token {
    explicit Token() = default;
  };

 public:
  // Nothing without a profile, a product family or (logged) a list of clients.
  static std::shared_ptr<HTTPSPostBackend> initWithName(const std::string& name,
                                                        const Dictionary* profile,
                                                        const SharedIdentity& identity);
  // For initWithName only: nobody else has a token.
  HTTPSPostBackend(Token, const std::string& name, const Dictionary& profile,
                   const SharedIdentity& identity);

  void setExchangeGate(std::shared_ptr<ExchangeGate> gate) override {
    _poster.setGate(std::move(gate));
  }
  void updateState() override EXCLUDES(_lock);
  // Says how many events were dropped because consent was withdrawn, if any.
  void cleanup() override;
  // Whether there is an address to send to is its own matter.
  void takeOver(Standing standing) override EXCLUDES(_lock);
  // Takes over what the storebag says of the client, and says what state that leads to.
  BackendState updateBackendState() EXCLUDES(_lock);

  using CorvidBackend::sendMessage;
  // Drops, posts or holds one event. Answers with the log text of what was posted, where the
  // logging rule wants one.
  std::optional<std::string> sendMessage(const Dictionary* payload, const TimeValue& timestamp,
                                         std::uint16_t method, std::uint16_t respCode,
                                         EventID eventID, MessageFlag flag) override
      EXCLUDES(_lock);
  // Posts the batch, or drops it where the state is not sending.
  std::optional<std::string> flushMessagesWithCompletion(FlushCompletion completion) override
      EXCLUDES(_lock);
  // Rewrites the records of the batch too.
  void setCorrelatedSessionID(std::string sessionID) override EXCLUDES(_lock);

  // Applies the entry's filters in place.
  void filterEvent(Dictionary& record) const EXCLUDES(_lock);

  std::optional<std::size_t> entry() const override EXCLUDES(_lock);
  std::size_t heldBytes() const override EXCLUDES(_lock);
  bool batchEvents() const EXCLUDES(_lock);
  // What holds for the client now.
  ClientPolicy policy() const EXCLUDES(_lock);
  std::optional<std::string> postURL() const EXCLUDES(_lock);
  void setPostURL(std::optional<std::string> postURL) EXCLUDES(_lock);

 private:
  // Records that leave the batch, or never were in it, and their events.
  struct Leaving {
    std::vector<EventRecord> records;
    Shipment events;
  };
  // A message, and what the log shows of it, where it is to.
  struct Message {
    EventPoster::Message message;
    std::optional<std::string> logText;
  };
  static bool isRealtime(MessageFlag flag) {
    return flag == MessageFlag{1} || flag == MessageFlag{3};
  }
  static bool liftsHeld(MessageFlag flag) {
    return flag == MessageFlag{2} || flag == MessageFlag{3};
  }
  static CorvidError nothingToFlush() { return CorvidError::of(-1, "Nothing to flush"); }

  bool lacksUserInfo() const REQUIRES(_lock) {
    return identity().requireUserInfo && !_userInfoDict;
  }
  EventRecord recordOf(const Event& event) REQUIRES(_lock);
  // What watchers of records see of one; nothing where there are none.
  std::optional<Dictionary> shown(const EventRecord& record) const {
    return account().ledger().recordsAreWatched() ? std::optional(record.copy()) : std::nullopt;
  }
  std::optional<std::string> sendAtOnce(Leaving leaving, const Event& event, MessageFlag flag,
                                        bool flushFirst);
  // Holds the record; false, leaving it, where its method has reached the threshold. Where the
  // batch is full and may be posted, its records move to `displaced` first.
  bool batchEvent(EventRecord& record, Leaving& displaced) REQUIRES(_lock);
  // Posts the batch that is in the way of a record, which itself is lost with it.
  std::optional<std::string> flushAtThreshold(EventRecord record);
  bool mayPostBatch() const REQUIRES(_lock) {
    return state() == BackendState::sending && !lacksUserInfo();
  }
  // Adds to the batch, which drops its oldest records where it is full.
  void hold(EventRecord record, std::size_t bytes) REQUIRES(_lock);
  // Forgets the batch, having said what it dropped.
  void closeBatch() REQUIRES(_lock);
  // Moves the batch behind what is leaving, with the filtered user info added, or says why not.
  std::optional<CorvidError> takeBatch(Leaving& leaving) REQUIRES(_lock);
  std::optional<std::string> postBatch(Leaving leaving, FlushCompletion completion);

  // Nothing (logged) where it cannot be written; the events are then dropped.
  std::optional<Message> messageOf(Leaving& leaving) const;
  std::optional<std::string> clientIdentifier() const REQUIRES(_lock);
  bool wantsMessageLog() const REQUIRES(_lock);
  // What asks whether consent still holds. Empty where it need not be asked: the deployment has it
  // asked once, or the entry overrides it.
  std::function<bool()> consentToAsk() const EXCLUDES(_lock);
  // Whether these may be sent now; if not, they are dropped.
  bool mayLeave(Leaving& leaving);
  void post(EventPoster::Message message, Shipment events, MessageFlag flag,
            std::optional<PostEnvelope::EventCodes> codes, FlushCompletion completion,
            std::size_t keptBytes);

  // Constant after construction.
  const bool _dnuEnabled;
  const std::string _uuidRespectDnu;
  const std::string _uuidOverrideDnu;
  const bool _forceEventLogging;
  // Synchronises itself.
  EventPoster _poster;
  std::atomic<std::size_t> _withdrawn{0};  // events that consent was withdrawn for

  ClientPolicy _policy GUARDED_BY(_lock);
  Reason _decidedReason GUARDED_BY(_lock) = Reason::notConfigured;
  std::optional<std::size_t> _entry GUARDED_BY(_lock);
  KeysChanged _keysChanged GUARDED_BY(_lock);                   // of the record made last
  std::shared_ptr<const RecordFrame> _frame GUARDED_BY(_lock);  // of that one too
  // Absent between a flush and the next batched event.
  std::optional<HeldRecords> _batchedEvents GUARDED_BY(_lock);
  // How many events of each method the batch has got.
  MethodCounts _eventMethodCounts GUARDED_BY(_lock);
};

}  // namespace corvid
