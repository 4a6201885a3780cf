// What all connections of a gateway share.
#pragma once

#include <atomic>
#include <chrono>
#include <memory>
#include <string>
#include <vector>

#include "gateway/Budget.h"
#include "gateway/Clients.h"
#include "gateway/Ledger.h"
#include "gateway/Settings.h"
#include "gateway/http/AddressRange.h"
#include "gateway/http/TLS.h"
#include "gateway/log/MessageLog.h"
#include "gateway/uploads/DiskThread.h"
#include "gateway/uploads/UploadStore.h"

namespace corvid::fleet {

// What a reload replaces as a whole.
struct InForce {
  Settings settings;
  std::vector<AddressRange> proxies;
  TLS tls;  // none: in the clear

  bool isProxy(const boost::asio::ip::address& address) const;
};

struct Shared {
  Shared(LogPublisher& publisher, std::size_t memory) : log(publisher), budget(memory) {}

  LogPublisher& log;
  std::chrono::milliseconds hold = std::chrono::seconds(20);
  int whenFull = 503;
  Ledger ledger;
  Budget budget;
  Clients clients;
  std::atomic<std::size_t> waiting = 0;  // messages for the log's acknowledgement
  std::unique_ptr<UploadStore> uploads;  // none: no uploads are taken
  DiskThread disk;
};

}  // namespace corvid::fleet
