// The services that a dashboard backend needs to send packets.
#pragma once

#include "platform/Platform.h"

namespace corvid::ctl {

// Installed as long as it is there. Log data is not uploaded by it.
class SendingPlatform {
 public:
  SendingPlatform();
  ~SendingPlatform();
  SendingPlatform(const SendingPlatform&) = delete;
  SendingPlatform& operator=(const SendingPlatform&) = delete;

 private:
  Platform _platform;
};

}  // namespace corvid::ctl
