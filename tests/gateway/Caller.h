// A client that can do everything wrong: it sends bytes and reads answers.
#pragma once

#include <chrono>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "base/Descriptor.h"
#include "tests/support/Waiting.h"

namespace corvid::fleet {

struct Got {
  int status = 0;
  std::map<std::string, std::string> headers{};  // names in lower case
  std::string body{};
};

// A connection to a port of this machine. Throws std::runtime_error where it cannot be had. One
// thread.
class Caller {
 public:
  explicit Caller(std::uint16_t port);

  // False where the peer takes no more.
  bool send(std::string_view bytes);
  void endWriting();
  // The next answer, those with status 100 too; nothing where none comes within `limit` or the
  // connection ends before.
  std::optional<Got> answer(std::chrono::milliseconds limit = patience);
  // Whether the peer ends the connection within `limit`; what comes meanwhile is thrown away.
  bool isClosed(std::chrono::milliseconds limit = patience);

 private:
  // False where nothing more comes within the time.
  bool fill(std::chrono::steady_clock::time_point deadline);

  Descriptor _socket;
  std::string _read;
};

// "POST PATH HTTP/1.1" with its Content-Length.
std::string request(std::string_view path, std::string_view body,
                    const std::vector<std::string>& headers = {});
// Sent on a connection of its own.
std::optional<Got> post(std::uint16_t port, std::string_view path, std::string_view body,
                        const std::vector<std::string>& headers = {});
std::optional<Got> get(std::uint16_t port, std::string_view path);

// What a dashboard's client posts: ["a"] as a binary property list.
std::string logData();

}  // namespace corvid::fleet
