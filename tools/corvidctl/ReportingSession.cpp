#include "tools/corvidctl/ReportingSession.h"

#include "base/Describe.h"
#include "protocol/Keys.h"

namespace corvid::ctl {

using tools::CommandLine;
using tools::UsageError;

const std::set<std::string> sessionOptions{"--client-type", "--client-version", "--session-id",
                                           "--client-name", "--service-name"};

SessionDescription::SessionDescription(const CommandLine& line) {
  const auto clientType = line.number("--client-type", 0, 1000);
  if (!clientType) throw UsageError("--client-type is missing: which storebag should decide?");
  sessionInfo.set(std::string(kCorvidSessionInfoClientType), *clientType);
  sessionInfo.set(std::string(kCorvidSessionInfoSessionID),
                  line.number("--session-id", 0, 4294967295).value_or(1));
  if (const auto version = line.number("--client-version", 0, 65535))
    sessionInfo.set(std::string(kCorvidSessionInfoClientVersion), *version);
  sessionInfo.set(std::string(kCorvidSessionInfoBatchEvent), true);

  Dictionary names;
  if (const auto name = line.text("--client-name"))
    names.set(std::string(kCorvidUserInfoClientName), *name);
  if (const auto name = line.text("--service-name"))
    names.set(std::string(kCorvidUserInfoServiceName), *name);
  sessionInfo.set(std::string(kCorvidSessionInfoRequireUserInfo), !names.empty());
  if (!names.empty()) userInfo = std::move(names);
}

ReportingSession::ReportingSession(const std::string& root, const SessionDescription& description)
    : _client(root, {}) {
  _client.setSessionInfo(description.sessionInfo, description.userInfo, {}, false);
  const CallOutcome outcome = _client.startConfig(true);
  if (!outcome.states)
    throw CallError(
        "nothing reports: the daemon has no storebag for this client type (its log says why)");
  if (outcome.states->empty())
    throw CallError(
        "nothing reports: no backend of the storebag accepts this session (the daemon's log says "
        "why)");
  for (const Value& name : *outcome.states)
    _backends += (_backends.empty() ? "" : " ") + corvid::description(name);
}

}  // namespace corvid::ctl
