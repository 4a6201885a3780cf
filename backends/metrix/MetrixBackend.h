// Hands events to the device's diagnostics service through an adaptor that comes with the
// conferencing client.
#pragma once

#include <memory>

#include "backends/CorvidBackend.h"
#include "platform/BundleLoader.h"

namespace corvid {

// The adaptor is an object of the class "MetrixAdaptor" of the performance bundle, made with the
// backend. Where bundle, class or object are missing, each event is one error line and nothing
// else.
//
// Threads  As the base's; the adaptor is called by one thread at a time, and with none of the locks
//          that others of the chain need: its code may take its time.
class MetrixBackend final : public CorvidBackend {
 public:
  // Nothing (logged) for a client type that may not use the adaptor. `profile` may be null.
  static std::shared_ptr<MetrixBackend> initWithName(const std::string& name,
                                                     const Dictionary* profile,
                                                     const SharedIdentity& identity);
  // Whatever the client type.
  MetrixBackend(const std::string& name, const Dictionary* profile, const SharedIdentity& identity);

  // The conferencing clients.
  static bool isClientTypeAllowed(std::int32_t clientType);

  void updateState() override {
    settle(BackendState::sending, takesEvents() ? Reason::reporting : Reason::noAdaptor);
  }
  using CorvidBackend::sendMessage;
  // Answers nothing, whether the adaptor took the event or not.
  std::optional<std::string> sendMessage(const Dictionary* payload, const TimeValue& timestamp,
                                         std::uint16_t method, std::uint16_t respCode,
                                         EventID eventID, MessageFlag flag) override
      EXCLUDES(_adaptorLock);

 private:
  bool takesEvents() const;

  const std::shared_ptr<const Bundle> _clientBundle;
  const BundleClass* const _metrixAdaptorClass;
  const std::unique_ptr<BundleObject> _metrixAdaptor;
  Mutex _adaptorLock;  // held while the adaptor's code runs
};

}  // namespace corvid
