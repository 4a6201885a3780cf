#include "backends/https/EventPoster.h"

#include <fmt/format.h>

#include <algorithm>
#include <chrono>
#include <utility>

#include "base/Describe.h"
#include "base/Log.h"
#include "base/Reading.h"
#include "base/URL.h"
#include "config/Environment.h"
#include "platform/Platform.h"
#include "platform/data/JSONText.h"
#include "protocol/Keys.h"
#include "protocol/LogReason.h"

namespace corvid {

namespace {

// Stands for the user of a client that has no gate of its own.
constexpr std::uint32_t nobody = 65534;

// Leaves numbers, booleans and strings, turns dates into numbers and drops what JSON cannot carry.
// `events` hears of those of its `at`th record.
void applyValueRules(Dictionary& record, Shipment& events, std::size_t at) {
  record.transformEntries([&](const std::string& key, Value& value) {
    switch (value.type()) {
      case Value::Type::boolean:
      case Value::Type::integer:
      case Value::Type::real:
      case Value::Type::string: return true;
      case Value::Type::date: value = finiteOrMinusOne(value.date()->secondsSince1970); return true;
      default:
        logWarning(
            "HTTPSPostBackend(createMessageForPostAndLogging): JSONSerializer unable to handle key: {}, value: {}",
            key, described(&value));
        events.noteUnwritable(at, key);
        return false;
    }
  });
}

// The message of these records at that time; nothing where it cannot be written.
std::optional<std::string> written(const std::vector<EventRecord>& records, double time,
                                   const std::optional<std::string>& clientID,
                                   std::size_t expected) {
  JSONText text(expected);
  text.beginObject();
  text.add("postTime", time);
  if (clientID) {
    text.add("clientId", *clientID);
    text.key("events");
    text.beginArray();
    for (const EventRecord& record : records) record.writeTo(text);
    text.endArray();
  }
  text.endObject();
  return text.take();
}

// A text that a client or a file gave, as a header's value: what would end the header, or is no
// text for a server, becomes a blank. The records have it as it is.
std::string headerValue(std::string text) {
  std::ranges::replace_if(
      text, [](unsigned char c) { return (c < ' ' && c != '\t') || c == 0x7f; }, ' ');
  return text;
}

// What of the message travels: its gzip form where that is shorter. Adds the headers that tell of
// it. The message is taken by value so that nothing of it is left while the caller waits.
std::string bodyOf(std::string message, Compressor& compressor, HTTPHeaders& headers) {
  std::optional<std::string> compressed = compressor.gzipDeflate(message);
  const bool smaller = compressed && !compressed->empty() && compressed->size() < message.size();
  std::string body = std::move(smaller ? *compressed : message);
  // Both texts were made with room for the worst case, which would be kept as long as the exchange
  // waits; the HTTP client's queue counts what a body holds, not what it could.
  body.shrink_to_fit();
  headers.emplace_back("Content-Length", fmt::format("{}", body.size()));
  if (smaller) headers.emplace_back("Content-Encoding", "gzip");
  return body;
}

// What an exchange keeps in memory until it ends, about.
std::size_t costOf(const HTTPRequest& request) {
  constexpr std::size_t besidesTexts = 1024;
  std::size_t bytes = besidesTexts + request.url.size() + request.body.size();
  for (const auto& [name, value] : request.headers) bytes += name.size() + value.size();
  return bytes;
}

void book(Shipment& events, const HTTPOutcome& outcome) {
  if (outcome.response)
    events.answered(outcome.response->status);
  else if (!outcome.error)
    events.failed(HTTPFailure::other, nullDescription);
  else if (outcome.error->kind == HTTPFailure::withdrawn)
    events.drop(Reason::noConsent);
  else
    events.failed(outcome.error->kind, outcome.error->description);
}

// What an exchange's end does; a backend that is gone has no state to set.
void finishExchange(Shipment& events, const std::weak_ptr<CorvidBackend>& sender,
                    const std::string& name, const HTTPOutcome& outcome,
                    const FlushCompletion& completion) {
  book(events, outcome);
  if (outcome.error)
    logError("HTTPSPostBackend(postJsonMessage): post error: {}", outcome.error->description);
  std::optional<CorvidError> error;
  if (outcome.response && outcome.response->status >= 500 && outcome.response->status <= 599) {
    const int status = outcome.response->status;
    error = CorvidError::of(
        status, fmt::format("backend {} disabled by server {} return code", name, status));
    const auto why = loggingReason(Reason::disabledByServer);
    logInfo("postJSONMessage: {}", error->localizedDescription);
    if (const auto backend = sender.lock())
      backend->settle(BackendState::disabled, Reason::disabledByServer);
  } else if (outcome.error) {
    error = CorvidError::of(outcome.error->code, outcome.error->description);
  }
  if (completion) completion(std::nullopt, std::move(error));
}

}  // namespace

EventPoster::EventPoster(Platform& platform, std::string backendName, SharedIdentity identity)
    : _platform(platform),
      _backendName(std::move(backendName)),
      _identity(std::move(identity)),
      _gate(std::make_shared<ExchangeGate>(platform.clock(), platform.budgets, nobody)) {}

std::optional<EventPoster::Message> EventPoster::createMessageForPostAndLogging(
    std::vector<EventRecord> records, std::optional<std::string> clientID, Shipment& events) const {
  // What is made of a message at once: it and its compressed form, or it, the text for the log and
  // two copies of that.
  constexpr std::size_t formsAtOnce = 4;
  constexpr std::size_t besidesRecords = 1024;
  const std::size_t count = records.size();
  std::size_t expected = besidesRecords;
  for (const EventRecord& record : records) expected += record.mostJSONBytes() + 1;
  if (expected > mostMessageBytes) {
    const auto why = loggingReason(Reason::unwritable);
    logError(
        "HTTPSPostBackend(createMessageForPostAndLogging): a message of {} events would have {} bytes, more than {}, and is lost",
        count, expected, mostMessageBytes);
    events.drop(Reason::unwritable);
    return std::nullopt;
  }
  std::optional<SharedBudget::Share> memory =
      _gate->memoryToWrite(HTTPRequest().timeout, formsAtOnce * expected);
  if (!memory) {
    const auto why = loggingReason(Reason::overLimit);
    logError(
        "HTTPSPostBackend(createMessageForPostAndLogging): no memory for a message of {} events beside those of the same user that are under way; it is lost",
        count);
    events.drop(Reason::overLimit);
    return std::nullopt;
  }

  for (std::size_t at = 0; at < count; ++at)
    applyValueRules(records[at].fieldsToCheck(), events, at);
  events.showRecords([&](std::size_t at) { return records[at].copy(); });
  const double now = finiteOrMinusOne(_platform.clock().now().asDouble());
  std::optional<std::string> text = written(records, now, clientID, expected);
  if (!text) {
    const auto why = loggingReason(Reason::unwritable);
    logError(
        "HTTPSPostBackend(createMessageForPostAndLogging): a message of {} events cannot be written as JSON and is lost",
        count);
    events.drop(Reason::unwritable);
    return std::nullopt;
  }
  return Message{*std::move(text), *std::move(memory)};
}

void EventPoster::postJSONMessage(Message message, const PostEnvelope& envelope, Shipment events,
                                  std::weak_ptr<CorvidBackend> sender, FlushCompletion completion,
                                  std::size_t keptBytes) const {
  if (!envelope.url) {
    events.drop(Reason::noAddress);
    if (completion) completion(std::nullopt, CorvidError::of(-1, "postURL is nil"));
    return;
  }
  HTTPRequest request = requestFor(envelope);
  request.mayLeave = envelope.mayLeave;
  request.body = bodyOf(std::move(message.text), _platform.compressor, request.headers);

  // The time at the gate and that in front of a full queue count together.
  Clock& clock = _platform.clock();
  const Clock::TimePoint start = clock.steadyNow();
  const std::size_t cost = costOf(request) + keptBytes;
  message.memory.shrink(cost);
  ExchangeGate::Pass pass = _gate->enter(request.timeout, cost, std::move(message.memory));
  request.patience = request.timeout - std::chrono::duration_cast<std::chrono::milliseconds>(
                                           clock.steadyNow() - start);
  events.beginPost(hostAndPort(request.url), request.body.size());
  _platform.http().start(
      std::move(request),
      [events = std::make_shared<Shipment>(std::move(events)), sender = std::move(sender),
       name = _backendName, pass = std::move(pass), completion = std::move(completion),
       subject = sharedLogSubject()](HTTPOutcome outcome) mutable {
        const LoggingFor session(subject.get());
        const LoggingBackend backend(name);
        pass.reset();
        finishExchange(*events, sender, name, outcome, completion);
      });
}

HTTPRequest EventPoster::requestFor(const PostEnvelope& envelope) const {
  HTTPRequest request;
  request.method = "POST";
  request.url = *envelope.url;
  request.wantsBody = false;
  request.headers.reserve(11);
  const auto setHeader = [&](const char* name, std::string value) {
    request.headers.emplace_back(name, headerValue(std::move(value)));
  };
  if (envelope.userInfo) {
    if (const std::string* name = stringAt(*envelope.userInfo, kCorvidUserInfoClientName))
      setHeader("X-CVD-Client-Name", *name);
    if (const std::string* name = stringAt(*envelope.userInfo, kCorvidUserInfoServiceName))
      setHeader("X-CVD-Service-Name", *name);
  }
  if (_identity->isInternal) setHeader("X-CVD-Internal-Build", "1");
  setHeader("User-Agent", fmt::format("Corvid/{}.{} ({}; {})", _identity->selfVersionMajor,
                                      _identity->selfVersionMinor, orNull(_identity->hardwareType),
                                      orNull(_identity->productVersion)));
  setHeader("X-CVD-Client-Version", fmt::format("{}", _identity->clientVersion));
  setHeader("X-CVD-Sender", std::string(clientTagForClientType(_identity->compType)));
  if (envelope.codes)
    setHeader("X-CVD-Event-Map",
              fmt::format("{} {}", envelope.codes->method, envelope.codes->responseCode));
  setHeader("Accept", "application/json");
  setHeader("Content-Type", "application/json");
  return request;
}

}  // namespace corvid
