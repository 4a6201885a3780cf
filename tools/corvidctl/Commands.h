// The commands of corvidctl, and what they are given.
//
// Each gives the exit status of the program. What the daemon does not do is a CallError; what
// cannot be meant, as a payload that is none, is a tools::InputError.
#pragma once

#include <cstddef>
#include <cstdint>
#include <istream>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "base/Log.h"
#include "base/Value.h"
#include "platform/Platform.h"
#include "platform/system/SystemClock.h"

namespace corvid::ctl {

// `session`: calls from `input`, one JSON object a line, up to its end; outcomes to standard
// output, one JSON object a line. A lost connection prints {"event":"invalidated"} and ends the
// process with status 1 at once, since the loop may be waiting for input that never comes.
int runSessionCommand(const std::string& root, std::istream& input);

struct Line {
  std::string text;  // without its end
  bool isTooLong;    // the text is only its beginning
};

// The next line, the last one also without its end; nothing where there is none. Of a line however
// long at most `longest` bytes are kept.
std::optional<Line> readLine(std::istream& input, std::size_t longest);

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

// One session for a person, described and configured first: `send` sends an event and flushes,
// `states` says which backends report, `upload` uploads files up to the first that fails.
int runSendCommand(const std::string& root, const SessionOptions& session,
                   const EventOptions& event);
int runStatesCommand(const std::string& root, const SessionOptions& session);
int runUploadCommand(const std::string& root, const SessionOptions& session,
                     const std::vector<std::string>& files);

struct PacketOptions {
  std::string ip;
  std::uint16_t port = 0;
  std::uint16_t method = 0;
  std::uint16_t respCode = 0;
  std::string payload = "{}";  // a JSON object
  std::uint16_t eventID = 1;
  std::uint32_t sessionID = 0;
  std::int32_t clientType = 0;
  std::uint16_t clientVersion = 0;
  std::string udid;
  // Of the event; now where neither is given.
  std::optional<std::int64_t> seconds;
  std::optional<std::int32_t> microseconds;
};

// `dashboard send`: one packet to a dashboard server, without the daemon. Prints its log line,
// waits by `clock`, says what became of it. 0 where it was acknowledged, 2 where it was not.
int runDashboardCommand(const PacketOptions& options,
                        std::shared_ptr<Clock> clock = std::make_shared<SystemClock>());

// The services that a dashboard backend needs to send packets, installed as long as it is there.
// Log data is not uploaded by it.
class SendingPlatform {
 public:
  explicit SendingPlatform(std::shared_ptr<Clock> clock = std::make_shared<SystemClock>());
  ~SendingPlatform();
  SendingPlatform(const SendingPlatform&) = delete;
  SendingPlatform& operator=(const SendingPlatform&) = delete;

 private:
  Platform _platform;
};

// What the daemon does and why, through its control socket: for people, or as JSON.
int runStatusCommand(const std::string& root, bool asJSON);
int runSessionsCommand(const std::string& root, std::uint64_t session, bool asJSON);

struct DecisionOptions {
  std::uint64_t session = 0;  // 0: of all
  std::uint32_t last = 0;     // 0: all that is known
  bool payload = false;
  std::optional<std::uint32_t> seconds;  // until the process ends
  bool asJSON = false;
};
// `explain`: what became of the latest events and posts. `tap`: the same as it is decided.
int runExplainCommand(const std::string& root, const DecisionOptions& options);
int runTapCommand(const std::string& root, const DecisionOptions& options);
// Why the session of this process does not report, with what helps: a line for the session, or one
// for each backend. Empty where the daemon does not tell.
std::vector<std::string> reasonsOfOwnSession(const std::string& root);
// A screen a second until q is pressed; one as plain text where there is no terminal.
int runTopCommand(const std::string& root);
int runMetricsCommand(const std::string& root);

// The storebag with that name, or each one, as the daemon reads it: version, key and age, then the
// section in force as a property list; or as a JSON object a line. Root only.
int runStorebagCommand(const std::string& root, const std::optional<std::string>& name,
                       bool asJSON);

struct RefreshOptions {
  std::optional<std::int64_t> clientType;
  bool states = false;
};
int runRefreshCommand(const std::string& root, const RefreshOptions& options);
// 0 seconds: for good.
int runLogLevelCommand(const std::string& root, LogLevel level, std::uint32_t seconds);

// `prefs`: the daemon's preferences, from outside. `words`: get KEY, set KEY VALUE, delete KEY or
// list.
int runPrefsCommand(const std::string& root, const std::string& suite,
                    const std::vector<std::string>& words);

}  // namespace corvid::ctl
