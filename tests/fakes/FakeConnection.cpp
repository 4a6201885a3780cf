#include "tests/fakes/FakeConnection.h"

#include <utility>

namespace corvid {

struct FakeConnection::Proxy final : ClientSessionReplyInterface {
  Proxy(FakeConnection& owner, std::function<void(const std::string&)> onErrorHandler)
      : connection(owner), onError(std::move(onErrorHandler)) {}

  void sendMessageToClient(std::optional<Dictionary> message, double timestamp,
                           std::uint16_t category, std::uint16_t type,
                           std::optional<Dictionary> payload) override {
    if (connection.onDelivery) connection.onDelivery();
    if (connection.deliveryError) {
      onError(*connection.deliveryError);
      return;
    }
    std::lock_guard lock(connection._mutex);
    connection._deliveries.push_back(
        {std::move(message), timestamp, category, type, std::move(payload)});
  }

  FakeConnection& connection;
  std::function<void(const std::string&)> onError;
};

std::optional<Value> FakeConnection::valueForEntitlement(std::string_view name) {
  const Value* found = entitlements.find(name);
  return found ? std::optional<Value>(*found) : std::nullopt;
}

void FakeConnection::setExportedObject(std::shared_ptr<ClientSessionInterface> object) {
  exportedObject = std::move(object);
}

void FakeConnection::setInterruptionHandler(std::function<void()> handler) {
  _interruptionHandler = std::move(handler);
}

void FakeConnection::setInvalidationHandler(std::function<void()> handler) {
  _invalidationHandler = std::move(handler);
}

void FakeConnection::resume() {
  resumed = true;
  if (onResume) onResume();
}

std::shared_ptr<ClientSessionReplyInterface> FakeConnection::remoteObjectProxyWithErrorHandler(
    std::function<void(const std::string&)> onError) {
  return std::make_shared<Proxy>(*this, std::move(onError));
}

void FakeConnection::invalidate(std::string_view) { clientVanishes(); }

void FakeConnection::clientVanishes() {
  if (auto handler = std::exchange(_invalidationHandler, nullptr)) handler();
  _interruptionHandler = nullptr;
  exportedObject = nullptr;
}

void FakeConnection::interrupt() {
  if (_interruptionHandler) _interruptionHandler();
}

std::vector<FakeConnection::Delivery> FakeConnection::deliveries() const {
  std::lock_guard lock(_mutex);
  return _deliveries;
}

}  // namespace corvid
