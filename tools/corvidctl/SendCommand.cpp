#include "tools/corvidctl/SendCommand.h"

#include <charconv>
#include <cstdio>
#include <set>

#include "platform/base/Describe.h"
#include "protocol/Keys.h"
#include "tools/CommandLine.h"
#include "tools/corvidctl/Client.h"

namespace corvid::ctl {

using tools::CommandLine;
using tools::UsageError;

namespace {

const std::set<std::string> sessionOptions{"--client-type", "--client-version", "--session-id",
                                           "--client-name", "--service-name"};

Dictionary sessionInfoFrom(const CommandLine& line) {
  const auto clientType = line.number("--client-type", 0, 1000);
  if (!clientType) throw UsageError("--client-type is missing: which storebag should decide?");
  Dictionary info{{std::string(kCorvidSessionInfoClientType), *clientType},
                  {std::string(kCorvidSessionInfoSessionID),
                   line.number("--session-id", 0, 4294967295).value_or(1)}};
  if (const auto version = line.number("--client-version", 0, 65535))
    info.set(std::string(kCorvidSessionInfoClientVersion), *version);
  info.set(std::string(kCorvidSessionInfoBatchEvent), true);
  info.set(std::string(kCorvidSessionInfoRequireUserInfo),
           line.text("--client-name").has_value() || line.text("--service-name").has_value());
  return info;
}

std::optional<Dictionary> userInfoFrom(const CommandLine& line) {
  Dictionary info;
  if (const auto name = line.text("--client-name"))
    info.set(std::string(kCorvidUserInfoClientName), *name);
  if (const auto name = line.text("--service-name"))
    info.set(std::string(kCorvidUserInfoServiceName), *name);
  return info.empty() ? std::nullopt : std::optional(info);
}

// Whole numbers and decimal numbers are numbers, everything else is text.
Value payloadValue(const std::string& text) {
  const char* end = text.data() + text.size();
  std::int64_t integer = 0;
  if (const auto [at, error] = std::from_chars(text.data(), end, integer);
      error == std::errc() && at == end)
    return integer;
  double real = 0;
  if (const auto [at, error] = std::from_chars(text.data(), end, real, std::chars_format::fixed);
      error == std::errc() && at == end)
    return real;
  return text;
}

Dictionary payloadFrom(const std::vector<std::string>& words) {
  Dictionary payload;
  for (const std::string& word : words) {
    const std::size_t equals = word.find('=');
    if (equals == 0 || equals == std::string::npos)
      throw UsageError("a payload entry is written key=value, not " + word);
    payload.set(word.substr(0, equals), payloadValue(word.substr(equals + 1)));
  }
  return payload;
}

// Configures the session; false, with a word why, where nothing reports.
bool start(Client& client, const CommandLine& line) {
  client.setSessionInfo(sessionInfoFrom(line), userInfoFrom(line), {}, false);
  const CallOutcome outcome = client.startConfig(true);
  if (!outcome.states) {
    std::puts(
        "no storebag for this client type: nothing will be reported (the daemon's log says why)");
    return false;
  }
  std::string names;
  for (const Value& name : *outcome.states) names += " " + description(name);
  std::printf("reporting through:%s\n", names.empty() ? " no backend" : names.c_str());
  return !outcome.states->empty();
}

}  // namespace

int runSendCommand(const std::string& root, const std::vector<std::string>& arguments) {
  std::set<std::string> valued = sessionOptions;
  valued.merge(std::set<std::string>{"--category", "--type", "--flag"});
  const CommandLine line(arguments, valued, {"--realtime"});
  const std::int64_t flag = line.has("--realtime") ? 1 : line.number("--flag", 0, 3).value_or(0);
  const Dictionary message{
      {std::string(kCorvidMessageParametersCategory),
       line.number("--category", 0, 65535).value_or(1)},
      {std::string(kCorvidMessageParametersType), line.number("--type", 0, 65535).value_or(0)},
      {std::string(kCorvidMessageParametersFlag), flag},
      {std::string(kCorvidMessageParametersPayload), payloadFrom(line.words())}};

  Client client(root, {});
  if (!start(client, line)) return 1;
  const CallOutcome sent = client.sendMessageWithDictionary(message, true);
  if (sent.text) std::printf("sent:\n%s\n", sent.text->c_str());
  const CallOutcome flushed = client.flush(true);
  if (flushed.failure && flushed.failure->localizedDescription != "Nothing to flush") {
    std::fprintf(stderr, "corvidctl: the flush failed: %s (%s %lld)\n",
                 flushed.failure->localizedDescription.c_str(), flushed.failure->domain.c_str(),
                 static_cast<long long>(flushed.failure->code));
    return 1;
  }
  std::puts(flag == 1 || flag == 3 ? "the event went out at once"
                                   : "the event went out with the flush");
  return 0;
}

int runStatesCommand(const std::string& root, const std::vector<std::string>& arguments) {
  const CommandLine line(arguments, sessionOptions, {});
  if (!line.words().empty()) throw UsageError("unexpected " + line.words().front());
  Client client(root, {});
  return start(client, line) ? 0 : 1;
}

}  // namespace corvid::ctl
