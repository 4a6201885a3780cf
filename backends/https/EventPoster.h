// Messages: the JSON around records, and the exchange that carries it to a server.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "backends/CorvidBackend.h"
#include "backends/ExchangeGate.h"
#include "backends/https/EventRecord.h"
#include "base/Value.h"
#include "platform/HTTPClient.h"
#include "status/Ledger.h"

namespace corvid {

// Where a message goes and what its headers say beside the sender's identity.
struct PostEnvelope {
  // Method and response code of an event that travels alone.
  struct EventCodes {
    std::uint16_t method;
    std::uint16_t responseCode;
  };

  std::optional<std::string> url;
  SharedDictionary userInfo;  // null where there is none
  std::optional<EventCodes> codes{};
  std::function<bool()> mayLeave{};  // as HTTPRequest says
};

// Posts the messages of one backend.
//
// Threads   setGate before the first post. The rest: any. Making a message blocks, for a minute at
//           most, while there is no memory for it; posting it so long as well, while the gate or
//           the HTTP client's queue is full. Completions run on the HTTP client's thread, or on the
//           caller's where nothing could be started.
// Locks     None is held, so none may be held by the caller that a completion could want.
class EventPoster {
 public:
  EventPoster(Platform& platform, std::string backendName, SharedIdentity identity);

  void setGate(std::shared_ptr<ExchangeGate> gate) { _gate = std::move(gate); }

  // Longer messages are not written.
  static constexpr std::size_t mostMessageBytes = std::size_t{32} << 20;

  // A message as it travels, and the memory that it and what is made of it may take.
  struct Message {
    std::string text;
    SharedBudget::Share memory;
  };

  // Memory for events that are held, none yet.
  SharedBudget::Share memoryToHold() const { return _gate->memoryToHold(); }

  // The message of these records, which are those of `events`: nothing, logged, where it cannot be
  // written or is too long, or where there is no memory for it within a minute; the events are then
  // dropped. An absent `clientID` leaves the time alone in it.
  std::optional<Message> createMessageForPostAndLogging(std::vector<EventRecord> records,
                                                        std::optional<std::string> clientID,
                                                        Shipment& events) const;

  // Starts the exchange. A server that answers 5xx switches `sender` off, if it still lives then.
  // `completion` may be empty; `keptBytes` is what it keeps in memory until it is called.
  void postJSONMessage(Message message, const PostEnvelope& envelope, Shipment events,
                       std::weak_ptr<CorvidBackend> sender, FlushCompletion completion,
                       std::size_t keptBytes) const;

 private:
  HTTPRequest requestFor(const PostEnvelope& envelope) const;

  // Constant after construction.
  Platform& _platform;
  const std::string _backendName;
  const SharedIdentity _identity;
  // Set before the first post; synchronises itself.
  std::shared_ptr<ExchangeGate> _gate;
};

}  // namespace corvid
