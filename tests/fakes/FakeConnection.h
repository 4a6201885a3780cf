// A connection without a wire: the test plays the client.
#pragma once

#include <atomic>
#include <mutex>
#include <vector>

#include "protocol/Connection.h"

namespace corvid {

class FakeConnection final : public Connection {
 public:
  struct Delivery {
    std::optional<Dictionary> message;
    double timestamp;
    std::uint16_t category;
    std::uint16_t type;
    std::optional<Dictionary> payload;
  };

  explicit FakeConnection(std::string description = "fake connection")
      : _description(std::move(description)) {}

  std::string description() const override { return _description; }
  std::uint32_t user() const override { return peerUser; }
  std::optional<Value> valueForEntitlement(std::string_view name) override;
  void setExportedObject(std::shared_ptr<ClientSessionInterface> object) override;
  void setInterruptionHandler(std::function<void()> handler) override;
  void setInvalidationHandler(std::function<void()> handler) override;
  void resume() override;
  std::shared_ptr<ClientSessionReplyInterface> remoteObjectProxyWithErrorHandler(
      std::function<void(const std::string&)> onError) override;
  void perform(std::function<void()> task) override { task(); }
  void statesMayHaveChanged() override { ++statesNotices; }
  void invalidate(std::string_view reason) override;

  // The client goes away: runs the invalidation handler and drops object and handlers.
  void clientVanishes();
  void interrupt();
  bool hasHandlers() const { return _interruptionHandler && _invalidationHandler; }
  std::vector<Delivery> deliveries() const;

  Dictionary entitlements;
  std::uint32_t peerUser = 1000;
  std::shared_ptr<ClientSessionInterface> exportedObject;
  bool resumed = false;
  std::function<void()> onResume;
  // Runs at each delivery, on the thread that makes it.
  std::function<void()> onDelivery;
  std::atomic<int> statesNotices{0};
  // When set, the next calls to the client fail with this text.
  std::optional<std::string> deliveryError;

 private:
  struct Proxy;

  const std::string _description;
  std::function<void()> _interruptionHandler;
  std::function<void()> _invalidationHandler;
  mutable std::mutex _mutex;
  std::vector<Delivery> _deliveries;
};

}  // namespace corvid
