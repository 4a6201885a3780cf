#include "tests/backends/https/PostBackendFixture.h"

#include "backends/BackendSet.h"
#include "base/Describe.h"
#include "base/Reading.h"
#include "platform/data/JSON.h"
#include "tools/Gzip.h"

namespace corvid {

Dictionary PostBackendFixture::openEntry() {
  return {{"post_url", batchURL},
          {"realtime_post_url", realtimeURL},
          {"locale_whitelist", Array{"US"}},
          {"filters", Array{Dictionary{{"key", "secret"}, {"action", "remove"}}}},
          {"sampling_threshold", 1.0},
          {"event_threshold", 49}};
}

Dictionary PostBackendFixture::openEntryWith(std::string key, Value value) {
  Dictionary entry = openEntry();
  entry.set(std::move(key), std::move(value));
  return entry;
}

Dictionary PostBackendFixture::openEntryWithout(std::string_view key) {
  Dictionary entry = openEntry();
  entry.erase(key);
  return entry;
}

std::shared_ptr<HTTPSPostBackend> PostBackendFixture::make(const Dictionary& profile) {
  const Dictionary section{{"httpPost", profile}};
  const SharedDictionary info = userInfo ? shared(*userInfo) : nullptr;
  const auto backends = createBackends(&section, &sessionInfo, info, udid);
  const auto found = backends->find("httpPost");
  if (found == backends->end()) return nullptr;
  auto backend = std::dynamic_pointer_cast<HTTPSPostBackend>(found->second);
  if (adjustIdentity) {
    BackendIdentity identity = backend->identity();
    adjustIdentity(identity);
    backend = HTTPSPostBackend::initWithName("httpPost", &profile, shared(identity));
    backend->setUserInfoDict(info);
  }
  backend->setCombinedSessionIDString("TOP.OWN");
  return backend;
}

std::shared_ptr<HTTPSPostBackend> PostBackendFixture::makeFor(const Dictionary& entry) {
  return makeFor(Array{entry});
}

std::shared_ptr<HTTPSPostBackend> PostBackendFixture::makeFor(const Array& entries) {
  auto backend = make({{"clients", entries}});
  backend->updateState();
  return backend;
}

std::optional<std::string> PostBackendFixture::send(HTTPSPostBackend& backend,
                                                    const Dictionary& payload, int flag,
                                                    std::uint16_t method, std::uint16_t respCode) {
  return backend.sendMessage(&payload, platform.clock->now(), method, respCode, MessageFlag{flag});
}

std::string PostBackendFixture::messageOf(const HTTPRequest& request) {
  if (headerOf(request, "Content-Encoding") != "gzip") return request.body;
  const auto message = gunzip(request.body);
  EXPECT_TRUE(message);
  return message.value_or("");
}

std::optional<std::string> PostBackendFixture::headerOf(const HTTPRequest& request,
                                                        std::string_view name) {
  for (const auto& [key, value] : request.headers)
    if (key == name) return value;
  return std::nullopt;
}

std::vector<Dictionary> PostBackendFixture::eventsOf(const HTTPRequest& request) {
  std::vector<Dictionary> events;
  const Result<Value> message = parseJSON(messageOf(request));
  const Dictionary* object = message ? message.value().dictionary() : nullptr;
  const Array* records = object ? arrayAt(*object, "events") : nullptr;
  if (records == nullptr) {
    ADD_FAILURE() << "no events in " << messageOf(request).substr(0, 1000);
    return events;
  }
  for (const Value& record : *records) events.push_back(*record.dictionary());
  return events;
}

std::vector<std::string> PostBackendFixture::posted(std::string_view key) const {
  std::vector<std::string> values;
  for (const HTTPRequest& request : requests()) {
    for (const Dictionary& event : eventsOf(request)) {
      const Value* value = event.find(key);
      values.push_back(value ? description(*value) : "missing");
    }
  }
  return values;
}

std::vector<std::string> PostBackendFixture::linesOf(std::string_view prefix,
                                                     LogLevel level) const {
  std::vector<std::string> texts = platform.log.texts(level);
  std::erase_if(texts, [&](const std::string& text) { return !text.starts_with(prefix); });
  return texts;
}

}  // namespace corvid
