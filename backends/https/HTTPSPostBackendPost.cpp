// The JSON message around records, and the exchange that carries it.
#include <fmt/format.h>

#include <algorithm>
#include <chrono>
#include <utility>

#include "backends/https/HTTPSPostBackend.h"
#include "base/Describe.h"
#include "base/Log.h"
#include "base/Reading.h"
#include "config/Environment.h"
#include "platform/Platform.h"
#include "platform/data/JSON.h"
#include "protocol/Keys.h"

namespace corvid {

namespace {

// Leaves numbers, booleans and strings, turns dates into numbers and drops what JSON cannot carry.
void applyValueRules(Dictionary& record) {
  record.transformEntries([](const std::string& key, Value& value) {
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
        return false;
    }
  });
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
std::string bodyOf(std::string message, HTTPHeaders& headers) {
  std::optional<std::string> compressed = Platform::current().compressor.gzipDeflate(message);
  const bool smaller = compressed && !compressed->empty() && compressed->size() < message.size();
  std::string body = std::move(smaller ? *compressed : message);
  // Both texts were made with room for the worst case, which would be kept as long as the exchange
  // waits; the HTTP client's queue counts what a body holds, not what it could.
  body.shrink_to_fit();
  headers.emplace_back("Content-Length", fmt::format("{}", body.size()));
  if (smaller) headers.emplace_back("Content-Encoding", "gzip");
  return body;
}

// What an exchange's end does; a backend that is gone has no state to set.
void finishExchange(const std::weak_ptr<CorvidBackend>& sender, const std::string& name,
                    const HTTPOutcome& outcome, const FlushCompletion& completion) {
  if (outcome.error)
    logError("HTTPSPostBackend(postJsonMessage): post error: {}", outcome.error->description);
  std::optional<CorvidError> error;
  if (outcome.response && outcome.response->status >= 500 && outcome.response->status <= 599) {
    const int status = outcome.response->status;
    error = CorvidError::of(
        status, fmt::format("backend {} disabled by server {} return code", name, status));
    logInfo("postJSONMessage: {}", error->localizedDescription);
    if (const auto backend = sender.lock()) backend->setState(BackendState::disabled);
  } else if (outcome.error) {
    error = CorvidError::of(outcome.error->code, outcome.error->description);
  }
  if (completion) completion(std::nullopt, std::move(error));
}

}  // namespace

std::optional<std::string> HTTPSPostBackend::createMessageForPostAndLogging(
    Records records, std::optional<std::string>& prettyJsonString) const {
  Dictionary message;
  message.set("postTime", finiteOrMinusOne(Platform::current().clock().now().asDouble()));
  Array events;
  events.reserve(records.size());
  for (Dictionary& record : records) {
    applyValueRules(record);
    events.emplace_back(std::move(record));
  }
  bool logging = false;
  {
    MutexLock lock(_lock);
    logging = wantsMessageLog();
    // Without an identifier the message ends after the time.
    if (std::optional<std::string> identifier = clientIdentifier()) {
      message.set("clientId", std::move(*identifier));
      message.set("events", std::move(events));
    }
  }
  std::optional<std::string> text = writeJSON(message);
  if (!text)
    logError(
        "HTTPSPostBackend(createMessageForPostAndLogging): a message of {} events cannot be written as JSON and is lost",
        records.size());
  if (text && logging) prettyJsonString = writePrettyJSON(message);
  return text;
}

std::optional<std::string> HTTPSPostBackend::clientIdentifier() const {
  if (_extrasOnInternal != 0 && identity().isInternal)
    return identity().udid ? std::optional<std::string>(identity().udid) : std::nullopt;
  if (_uuidCustom) return _uuidCustom;
  return _dnuType == DNUType::respected ? _uuidRespectDnu : _uuidOverrideDnu;
}

bool HTTPSPostBackend::wantsMessageLog() const {
  if (_dnuType == DNUType::respected && _dnuEnabled) return true;
  if (!_forceEventLogging) return false;
  const CorvidEnvironmentType environment = currentEnvironment();
  return environment == CorvidEnvironmentType::development ||
         environment == CorvidEnvironmentType::internal;
}

void HTTPSPostBackend::postJSONMessage(std::string message, MessageFlag flag,
                                       std::optional<EventCodes> codes, FlushCompletion completion,
                                       std::size_t keptBytes) {
  std::optional<HTTPRequest> request = requestFor(flag, codes);
  if (!request) {
    if (completion) completion(std::nullopt, CorvidError::of(-1, "postURL is nil"));
    return;
  }
  request->body = bodyOf(std::move(message), request->headers);

  // The time at the gate and that in front of a full queue count together.
  const auto start = std::chrono::steady_clock::now();
  ExchangeGate::Pass pass = _gate->enter(request->timeout, request->body.size() + keptBytes);
  request->patience = request->timeout - std::chrono::duration_cast<std::chrono::milliseconds>(
                                             std::chrono::steady_clock::now() - start);
  Platform::current().http().start(
      std::move(*request), [sender = weak_from_this(), name = _name, pass = std::move(pass),
                            completion = std::move(completion)](HTTPOutcome outcome) mutable {
        pass.reset();
        finishExchange(sender, name, outcome, completion);
      });
}

std::optional<HTTPRequest> HTTPSPostBackend::requestFor(MessageFlag flag,
                                                        std::optional<EventCodes> codes) const {
  MutexLock lock(_lock);
  const std::optional<std::string>& target = isRealtime(flag) ? _realtimePostURL : _postURL;
  if (!target) return std::nullopt;
  HTTPRequest request;
  request.method = "POST";
  request.url = *target;
  request.wantsBody = false;
  request.headers.reserve(11);
  const auto setHeader = [&](const char* name, std::string value) {
    request.headers.emplace_back(name, headerValue(std::move(value)));
  };
  if (_userInfoDict) {
    if (const std::string* name = stringAt(*_userInfoDict, kCorvidUserInfoClientName))
      setHeader("X-CVD-Client-Name", *name);
    if (const std::string* name = stringAt(*_userInfoDict, kCorvidUserInfoServiceName))
      setHeader("X-CVD-Service-Name", *name);
  }
  if (identity().isInternal) setHeader("X-CVD-Internal-Build", "1");
  setHeader("User-Agent", fmt::format("Corvid/{}.{} ({}; {})", identity().selfVersionMajor,
                                      identity().selfVersionMinor, orNull(identity().hardwareType),
                                      orNull(identity().productVersion)));
  setHeader("X-CVD-Client-Version", fmt::format("{}", identity().clientVersion));
  setHeader("X-CVD-Sender", std::string(clientTagForClientType(identity().compType)));
  if (codes) setHeader("X-CVD-Event-Map", fmt::format("{} {}", codes->method, codes->responseCode));
  setHeader("Accept", "application/json");
  setHeader("Content-Type", "application/json");
  return request;
}

}  // namespace corvid
