// Posts event records as JSON over HTTPS.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "backends/CorvidBackend.h"
#include "backends/ExchangeGate.h"
#include "backends/https/EventFilters.h"
#include "backends/https/HeldRecords.h"
#include "backends/https/MethodCounts.h"
#include "platform/HTTPClient.h"

namespace corvid {

// The first entry of the profile's "clients" that matches the session's client and service decides
// where records go, whether they may leave the device, and in which form. A record is posted at
// once or held in a batch, oldest first, until a flush. A batch that is full is flushed before its
// time; where it may not be flushed it drops its oldest records (HeldRecords says when it is full).
//
// Threads   As the base says. Sends, flushes and updates of one backend do not overlap;
//           setCorrelatedSessionID and the properties may come in between from any thread.
//           A send or a flush blocks, for a minute at most, while its gate or the HTTP client's
//           queue is full. Completions of exchanges set `state` only, and only while the backend
//           lives.
// Locks     `_lock` for the fields below; taken once a step, never across a post or a completion.
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

  void setExchangeGate(std::shared_ptr<ExchangeGate> gate) override { _gate = std::move(gate); }
  void updateState() override { setState(updateBackendState()); }
  // Finds the client's entry, takes over its settings and says what state they lead to.
  BackendState updateBackendState();

  using CorvidBackend::sendMessage;
  // Drops, posts or batches one event. Answers with the log text of what was posted, where the
  // logging rule wants one.
  std::optional<std::string> sendMessage(const Dictionary* payload, const TimeValue& timestamp,
                                         std::uint16_t method, std::uint16_t respCode,
                                         EventID eventID, MessageFlag flag) override;
  // Posts the batch, or drops it where the state is not sending.
  std::optional<std::string> flushMessagesWithCompletion(FlushCompletion completion) override;
  // Rewrites the records of the batch too.
  void setCorrelatedSessionID(std::string sessionID) override;

  // Applies the entry's filters in place.
  void filterEvent(Dictionary& record) const;

  bool batchEvents() const;
  std::optional<std::string> postURL() const;
  void setPostURL(std::optional<std::string> postURL);

 private:
  using Records = std::vector<Dictionary>;
  // Method and response code of an event that travels alone.
  struct EventCodes {
    std::uint16_t method;
    std::uint16_t responseCode;
  };
  static bool isRealtime(MessageFlag flag) {
    return flag == MessageFlag{1} || flag == MessageFlag{3};
  }
  static bool liftsHeld(MessageFlag flag) {
    return flag == MessageFlag{2} || flag == MessageFlag{3};
  }
  static CorvidError nothingToFlush() { return CorvidError::of(-1, "Nothing to flush"); }
  // Consent as the entry and the user settle it; any but respected sends the override identifier.
  enum class DNUType : std::int32_t { respected = 0, overridden = 1, overridable = 2 };

  // Configuration.
  const Dictionary* firstMatchingClient(const std::string* clientName,
                                        const std::string* serviceID) const;
  static bool matchClientNameAndServiceID(const Dictionary& client, const std::string* clientName,
                                          const std::string* serviceID);
  void applyExpedite(const Dictionary& client) REQUIRES(_lock);
  BackendState stateWithoutUserInfo() REQUIRES(_lock);
  bool passesConsent(const Dictionary& client) REQUIRES(_lock);
  bool passesLists(const Dictionary& client, const std::optional<std::string>& country) const
      REQUIRES(_lock);
  void createFiltersFromArray(const Array& filters) REQUIRES(_lock);
  void updateSamplingThreshold(const Dictionary& client, const std::optional<std::string>& country)
      REQUIRES(_lock);
  BackendState sampledState(const Dictionary& client) REQUIRES(_lock);
  void resetBackendStateWithClient(const Dictionary* client) REQUIRES(_lock);
  bool updatePostLink(const Dictionary& client) REQUIRES(_lock);

  // Records and batching.
  Dictionary createEventDictfromPayload(const Dictionary* payload, const TimeValue& timestamp,
                                        std::uint16_t method, std::uint16_t respCode) const
      REQUIRES(_lock);
  void addStopEventSummary(Dictionary& payload) const REQUIRES(_lock);
  void prepareEventForMessage(Dictionary& record) const REQUIRES(_lock);
  std::optional<std::string> sendAtOnce(Dictionary record, EventCodes codes, MessageFlag flag,
                                        bool flushFirst);
  // Appends the record to the batch; false, leaving it, where its method has reached the threshold.
  // Where the batch is full and may be posted, its records move to `displaced` first.
  bool batchEvent(Dictionary& record, Records& displaced) REQUIRES(_lock);
  // Posts the batch that is in the way of a record, which itself is lost with it.
  std::optional<std::string> flushAtThreshold(Dictionary record);
  bool canFlush() const REQUIRES(_lock);
  // Adds to the batch, which drops its oldest records where it is full.
  void hold(Dictionary record) REQUIRES(_lock);
  // Forgets the batch, having said what it dropped.
  void closeBatch() REQUIRES(_lock);
  // Moves the batch into `records` with the filtered user info added, or says why not.
  std::optional<CorvidError> takeBatch(Records& records) REQUIRES(_lock);
  std::optional<std::string> postBatch(Records records, FlushCompletion completion);

  // Post.
  std::optional<std::string> createMessageForPostAndLogging(
      Records records, std::optional<std::string>& prettyJsonString) const;
  std::optional<std::string> clientIdentifier() const REQUIRES(_lock);
  bool wantsMessageLog() const REQUIRES(_lock);
  // `keptBytes` is what `completion` keeps in memory until it is called.
  void postJSONMessage(std::string message, MessageFlag flag, std::optional<EventCodes> codes,
                       FlushCompletion completion, std::size_t keptBytes);
  std::optional<HTTPRequest> requestFor(MessageFlag flag, std::optional<EventCodes> codes) const;

  // Constant after construction.
  const bool _dnuEnabled;
  const std::string _uuidRespectDnu;
  const std::string _uuidOverrideDnu;
  const bool _forceEventLogging;
  // Set before the first event; synchronises itself.
  std::shared_ptr<ExchangeGate> _gate = std::make_shared<ExchangeGate>();

  std::optional<std::string> _postURL GUARDED_BY(_lock);
  std::optional<std::string> _realtimePostURL GUARDED_BY(_lock);
  // The address comes from the preferences; the storebag does not replace it.
  bool _useDefaultPostURL GUARDED_BY(_lock) = false;
  bool _useDefaultRealtimePostURL GUARDED_BY(_lock) = false;
  bool _batchEvents GUARDED_BY(_lock);
  EventFilters _filters GUARDED_BY(_lock);
  DNUType _dnuType GUARDED_BY(_lock) = DNUType::respected;
  std::int32_t _extrasOnInternal GUARDED_BY(_lock) = 0;
  std::optional<double> _overrideSampling GUARDED_BY(_lock);
  std::optional<std::string> _uuidCustom GUARDED_BY(_lock);
  // Absent between a flush and the next batched event.
  std::optional<HeldRecords> _batchedEvents GUARDED_BY(_lock);
  // How many events of each method the batch has got, and how many it takes.
  MethodCounts _eventMethodCounts GUARDED_BY(_lock);
  std::int32_t _eventThreshold GUARDED_BY(_lock) = 49;
};

}  // namespace corvid
