#include "gateway/ServiceManager.h"

#include <sys/socket.h>

#include <cstdlib>
#include <string>

#include "base/Descriptor.h"
#include "base/UnixAddress.h"

namespace corvid::fleet {

void notifyManager(std::string_view lines) {
  const char* const path = std::getenv("NOTIFY_SOCKET");
  if (!path) return;
  std::string name(path);
  if (name.starts_with('@')) name[0] = '\0';
  const Descriptor socket(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  if (socket && UnixAddress(name).connect(socket.get()) == 0)
    send(socket.get(), lines.data(), lines.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
}

}  // namespace corvid::fleet
