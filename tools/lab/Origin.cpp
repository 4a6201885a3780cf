#include "tools/lab/Origin.h"

#include <string>

namespace corvid::lab {

bool isOfThisOrigin(const Request& request) {
  const std::string host = request.header("Host").value_or("");
  const std::string name = host.substr(0, host.find_first_of(":"));
  if (request.headerCount("Host") != 1 || (name != "localhost" && name != "127.0.0.1"))
    return false;
  const std::string origin = "http://" + host;
  if (request.headerCount("Origin") > 1 || request.header("Origin").value_or(origin) != origin)
    return false;
  if (request.method == "GET" && request.header("Sec-Fetch-Mode") == "navigate") return true;
  const std::string site = request.header("Sec-Fetch-Site").value_or("none");
  return site == "same-origin" || site == "none";
}

}  // namespace corvid::lab
