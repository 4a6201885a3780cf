#include "backends/metrix/MetrixBackend.h"

#include <string_view>

#include "base/Log.h"
#include "platform/Platform.h"
#include "protocol/LogReason.h"

namespace corvid {

namespace {

constexpr std::string_view adaptorClass = "MetrixAdaptor";
constexpr std::string_view forwardingOperation = "sendMessageWithMethod:respCode:dict:";

}  // namespace

bool MetrixBackend::isClientTypeAllowed(std::int32_t clientType) {
  return clientType == 7 || clientType == 11 || clientType == 13;
}

std::shared_ptr<MetrixBackend> MetrixBackend::initWithName(const std::string& name,
                                                           const Dictionary* profile,
                                                           const SharedIdentity& identity) {
  const std::int32_t clientType = identity->compType;
  logInfo("MetrixBackend(initWithName): Loading Metrix adaptor class for client type {}",
          clientType);
  if (!isClientTypeAllowed(clientType)) {
    logError("MetrixBackend(initWithName): No matching bundle found for client type {}",
             clientType);
    return nullptr;
  }
  return std::make_shared<MetrixBackend>(name, profile, identity);
}

MetrixBackend::MetrixBackend(const std::string& name, const Dictionary* profile,
                             const SharedIdentity& identity)
    : CorvidBackend(name, profile ? *profile : Dictionary(), identity),
      _clientBundle(_platform.bundles().performanceBundle()),
      _metrixAdaptorClass(_clientBundle ? _clientBundle->classNamed(adaptorClass) : nullptr),
      _metrixAdaptor(_metrixAdaptorClass ? _metrixAdaptorClass->create() : nullptr) {}

bool MetrixBackend::takesEvents() const {
  return _metrixAdaptor && _metrixAdaptor->respondsTo(forwardingOperation);
}

std::optional<std::string> MetrixBackend::sendMessage(const Dictionary* payload, const TimeValue&,
                                                      std::uint16_t method, std::uint16_t respCode,
                                                      EventID, MessageFlag) {
  MutexLock lock(_adaptorLock);
  if (takesEvents()) {
    _metrixAdaptor->perform(forwardingOperation, method, respCode, payload);
    _account->deliver(_offered);
    return std::nullopt;
  }
  const auto why = loggingReason(Reason::noAdaptor);
  logError(
      "MetrixBackend(sendMessage): Metrix adaptor {} does not respond to forwarding selector {}",
      _metrixAdaptor ? _metrixAdaptor->description() : "(null)", forwardingOperation);
  _account->drop(_offered, Reason::noAdaptor);
  return std::nullopt;
}

}  // namespace corvid
