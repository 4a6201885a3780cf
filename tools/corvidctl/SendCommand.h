// `corvidctl send`, `states` and `upload`: one session for a person.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "base/Value.h"

namespace corvid::ctl {

// How a session describes itself.
struct SessionOptions {
  std::int64_t clientType = 0;
  std::optional<std::int64_t> clientVersion;
  std::int64_t sessionID = 1;
  Dictionary userInfo;  // a session that has some requires it
};

struct EventOptions {
  std::int64_t category = 1;
  std::int64_t type = 0;
  std::int64_t flag = 0;
  std::vector<std::string> payload;  // KEY=VALUE, where VALUE is JSON or else a text
};

// Each describes a session, configures it and gives the exit status of the program. What went wrong
// on the way is a CallError; a payload that cannot be meant is a tools::InputError.

// Sends one event and flushes.
int runSendCommand(const std::string& root, const SessionOptions& session,
                   const EventOptions& event);

// Says which backends report.
int runStatesCommand(const std::string& root, const SessionOptions& session);

// Uploads files, up to the first that fails.
int runUploadCommand(const std::string& root, const SessionOptions& session,
                     const std::vector<std::string>& files);

}  // namespace corvid::ctl
