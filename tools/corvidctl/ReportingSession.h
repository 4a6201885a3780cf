// A session that a person describes with options.
#pragma once

#include <memory>
#include <set>
#include <string>

#include "base/Value.h"
#include "tools/CommandLine.h"
#include "tools/corvidctl/Client.h"

namespace corvid::ctl {

// The valued options that describe a session.
extern const std::set<std::string> sessionOptions;

// What the options say. UsageError where they make no sense.
struct SessionDescription {
  explicit SessionDescription(const tools::CommandLine& line);

  Dictionary sessionInfo;
  std::optional<Dictionary> userInfo;
};

// Connects, describes the session and configures it. CallError where nothing would report.
class ReportingSession {
 public:
  ReportingSession(const std::string& root, const SessionDescription& description);

  Client& client() { return _client; }
  // The names of the backends that report, with blanks between them.
  const std::string& backends() const { return _backends; }

 private:
  Client _client;
  std::string _backends;
};

}  // namespace corvid::ctl
