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

std::shared_ptr<HTTPSPostBackend> HTTPSPostBackend::initWithName(
    const std::string& name, const Dictionary* profile,
    const std::optional<std::string>& productFamily) {
  if (profile == nullptr || !productFamily) return nullptr;
  if (arrayAt(*profile, "clients") == nullptr) {
    logError("HTTPSPostBackend(initWithName): can't find the client list.");
    return nullptr;
  }
  return std::make_shared<HTTPSPostBackend>(Token{}, name, *profile, *productFamily);
}

HTTPSPostBackend::HTTPSPostBackend(Token, const std::string& name, const Dictionary& profile,
                                   const std::string& productFamily)
    : CorvidBackend(name, profile, productFamily),
      _dnuEnabled(Platform::current().consent().diagnosticsSubmissionAllowed()),
      _uuidRespectDnu(Platform::current().consent().getPersistentIdentifierForDNU(true)),
      _uuidOverrideDnu(Platform::current().consent().getPersistentIdentifierForDNU(false)),
      _forceEventLogging(userDefaultFlag("forceEventLogging")),
      _postURL(userDefaultText("httpsPostURL")),
      _realtimePostURL(userDefaultText("httpsRealtimePostURL")),
      _useDefaultPostURL(_postURL.has_value()),
      _useDefaultRealtimePostURL(_realtimePostURL.has_value()) {
  if (_postURL)
    logDebug("HTTPSPostBackend(initWithName): Using user default '{}' for postURL", *_postURL);
  if (_realtimePostURL)
    logDebug("HTTPSPostBackend(initWithName): Using user default '{}' for realtimePostURL",
             *_realtimePostURL);
  if (const std::string* url = stringAt(_profile, "display_url")) _displayURL = *url;
}

void HTTPSPostBackend::filterEvent(Dictionary& record) const {
  RecursiveLock lock(_lock);
  _filters.apply(record);
}

std::optional<std::string> HTTPSPostBackend::postURL() const {
  RecursiveLock lock(_lock);
  return _postURL;
}

void HTTPSPostBackend::setPostURL(std::optional<std::string> postURL) {
  RecursiveLock lock(_lock);
  _postURL = std::move(postURL);
}

}  // namespace corvid
