#include "tools/corvidctl/SendingPlatform.h"

#include <memory>

#include "platform/data/SystemRandom.h"
#include "platform/network/SystemNetwork.h"
#include "platform/system/SystemClock.h"

namespace corvid::ctl {

namespace {

Platform::Services sendingServices() {
  Platform::Services services;
  services.clock = std::make_shared<SystemClock>();
  services.random = std::make_shared<SystemRandom>();
  services.network = std::make_shared<SystemNetwork>(services.clock);
  return services;
}

}  // namespace

SendingPlatform::SendingPlatform() : _platform(sendingServices()) { Platform::install(&_platform); }

SendingPlatform::~SendingPlatform() { Platform::install(nullptr); }

}  // namespace corvid::ctl
