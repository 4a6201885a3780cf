// What the configuration file says; a reload puts others into force.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "base/Result.h"
#include "gateway/Limits.h"

namespace corvid::fleet {

struct Settings {
  // Connections in all, and of one address that is no proxy's.
  std::size_t connections = 20'000;
  std::size_t clientConnections = 256;
  // Of one client: requests at once; and for a second, of which it may save up ten: requests,
  // bytes, and milliseconds of this program's time.
  std::size_t clientExchanges = 64;
  std::size_t clientRequests = 200;
  std::size_t clientBytes = 8 * limits::mebibyte;
  std::size_t clientTime = 250;

  // How long a connection may be idle, a head and a body take; a body has a second more for each
  // `bodyRate` bytes that have come of it, and no pause of more than `bodyTime`.
  std::chrono::milliseconds idleTime = std::chrono::seconds(75);
  std::chrono::milliseconds headTime = std::chrono::seconds(10);
  std::chrono::milliseconds bodyTime = std::chrono::seconds(20);
  std::size_t bodyRate = std::size_t{32} << 10;

  // Kept free on the disk of uploads.
  std::size_t freeSpace = 1024 * limits::mebibyte;

  // Who may say who the client is, "ADDRESS" or "ADDRESS/BITS", and in which header.
  std::vector<std::string> proxies;
  std::string clientHeader = "X-Real-IP";
};

// Lines of the form "name = value"; "#" begins a comment. Names are those above, written with
// hyphens, times in whole milliseconds. `proxies` are separated by blanks. The failure names the
// first line that is wrong.
Result<Settings> parseSettings(std::string_view text);
Result<Settings> readSettings(const std::string& file);

}  // namespace corvid::fleet
