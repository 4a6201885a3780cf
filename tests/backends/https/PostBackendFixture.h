// A post backend as a session would have it, on fakes.
#pragma once

#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "backends/https/HTTPSPostBackend.h"
#include "tests/fakes/TestIdentity.h"
#include "tests/fakes/TestPlatform.h"

namespace corvid {

struct PostBackendFixture : testing::Test {
  static constexpr const char* udid = "0123456789abcdef0123456789abcdef01234567";
  static constexpr const char* batchURL = "https://events.test/batch";
  static constexpr const char* realtimeURL = "https://events.test/now";

  // An entry that matches everybody and lets everything through.
  static Dictionary openEntry();
  // The same with one key replaced, or left out.
  static Dictionary openEntryWith(std::string key, Value value);
  static Dictionary openEntryWithout(std::string_view key);

  // A backend of that profile, filled from `sessionInfo`, `userInfo` and the device.
  std::shared_ptr<HTTPSPostBackend> make(const Dictionary& profile);
  // Of one entry, or several, with its state computed.
  std::shared_ptr<HTTPSPostBackend> makeFor(const Dictionary& entry);
  std::shared_ptr<HTTPSPostBackend> makeFor(const Array& entries);

  // Sends an event at the fake clock's time.
  std::optional<std::string> send(HTTPSPostBackend& backend, const Dictionary& payload,
                                  int flag = 0, std::uint16_t method = 3,
                                  std::uint16_t respCode = 4);

  std::vector<HTTPRequest> requests() const { return platform.http->requests(); }
  // The message of a request, unpacked where it is compressed.
  static std::string messageOf(const HTTPRequest& request);
  static std::optional<std::string> headerOf(const HTTPRequest& request, std::string_view name);
  // The records of a request's message.
  static std::vector<Dictionary> eventsOf(const HTTPRequest& request);
  // Of the records of every request: the value of one key, described.
  std::vector<std::string> posted(std::string_view key) const;
  // Log texts of the level that begin so, in order.
  std::vector<std::string> linesOf(std::string_view prefix, LogLevel level = LogLevel::debug) const;

  TestPlatform platform;
  // What the next backends' identity differs in from that of this session and device.
  std::function<void(BackendIdentity&)> adjustIdentity;
  Dictionary sessionInfo{{"ClientType", 5},
                         {"ClientVersion", 7},
                         {"SessionID", 99},
                         {"BatchEvent", false},
                         {"RequireUserInfo", true}};
  std::optional<Dictionary> userInfo =
      Dictionary{{"_clientName", "player"}, {"_serviceName", "radio"}};
};

}  // namespace corvid
