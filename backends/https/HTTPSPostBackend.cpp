// Creation and simple properties.
#include "backends/https/HTTPSPostBackend.h"

#include <utility>

#include "base/Log.h"
#include "base/Reading.h"
#include "platform/Platform.h"

namespace corvid {

namespace {

std::optional<std::string> userDefaultText(std::string_view key) {
  const std::optional<Value> value = Platform::current().preferences().value(corvidSuite, key);
  const std::string* text = value ? value->string() : nullptr;
  return text ? std::optional(*text) : std::nullopt;
}

bool userDefaultFlag(std::string_view key) {
  const std::optional<Value> value = Platform::current().preferences().value(corvidSuite, key);
  return asBoolean(value ? &*value : nullptr).value_or(false);
}

}  // namespace

std::shared_ptr<HTTPSPostBackend> HTTPSPostBackend::initWithName(const std::string& name,
                                                                 const Dictionary* profile,
                                                                 const SharedIdentity& identity) {
  if (profile == nullptr || !identity->productFamily) return nullptr;
  if (arrayAt(*profile, "clients") == nullptr) {
    logError("HTTPSPostBackend(initWithName): can't find the client list.");
    return nullptr;
  }
  return std::make_shared<HTTPSPostBackend>(Token{}, name, *profile, identity);
}

HTTPSPostBackend::HTTPSPostBackend(Token, const std::string& name, const Dictionary& profile,
                                   const SharedIdentity& identity)
    : CorvidBackend(name, profile, identity, textAt(profile, "display_url")),
      _dnuEnabled(Platform::current().consent().diagnosticsSubmissionAllowed()),
      _uuidRespectDnu(Platform::current().consent().getPersistentIdentifierForDNU(true)),
      _uuidOverrideDnu(Platform::current().consent().getPersistentIdentifierForDNU(false)),
      _forceEventLogging(userDefaultFlag("forceEventLogging")),
      _postURL(userDefaultText("httpsPostURL")),
      _realtimePostURL(userDefaultText("httpsRealtimePostURL")),
      _useDefaultPostURL(_postURL.has_value()),
      _useDefaultRealtimePostURL(_realtimePostURL.has_value()),
      _batchEvents(identity->batchEvents) {
  if (_postURL)
    logDebug("HTTPSPostBackend(initWithName): Using user default '{}' for postURL", *_postURL);
  if (_realtimePostURL)
    logDebug("HTTPSPostBackend(initWithName): Using user default '{}' for realtimePostURL",
             *_realtimePostURL);
}

void HTTPSPostBackend::filterEvent(Dictionary& record) const {
  MutexLock lock(_lock);
  _filters.apply(record);
}

bool HTTPSPostBackend::batchEvents() const {
  MutexLock lock(_lock);
  return _batchEvents;
}

std::optional<std::string> HTTPSPostBackend::postURL() const {
  MutexLock lock(_lock);
  return _postURL;
}

void HTTPSPostBackend::setPostURL(std::optional<std::string> postURL) {
  MutexLock lock(_lock);
  _postURL = std::move(postURL);
}

}  // namespace corvid
