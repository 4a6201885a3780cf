#include "tools/corvidctl/SendCommand.h"

#include <fmt/format.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <set>
#include <system_error>

#include "protocol/Keys.h"
#include "tools/JSONValues.h"
#include "tools/corvidctl/ReportingSession.h"

namespace corvid::ctl {

using tools::CommandLine;
using tools::UsageError;

namespace {

Dictionary payloadFrom(const std::vector<std::string>& words) {
  Dictionary payload;
  for (const std::string& word : words) {
    const std::size_t equals = word.find('=');
    if (equals == 0 || equals == std::string::npos)
      throw UsageError("a payload entry is written key=value, not " + word);
    Result<Value> value = tools::valueFromWord(word.substr(equals + 1));
    if (!value) throw UsageError(word + ": " + value.failure().message);
    payload.set(word.substr(0, equals), std::move(value).value());
  }
  return payload;
}

// What became of the event, as far as the flush tells.
const char* fateAfter(const CallOutcome& flush) {
  if (flush.end == CORVID_OUTCOME_UNANSWERED)
    throw CallError("the daemon did not answer the flush");
  if (!flush.failure) return "flushed: the backends have handed over what they held";
  const CorvidError& failure = *flush.failure;
  if (failure.localizedDescription == "Nothing to flush")
    return "nothing was left to flush: the event went out at once, or no backend wanted it";
  throw CallError(fmt::format("the flush failed: {} ({} {})", failure.localizedDescription,
                              failure.domain, failure.code));
}

}  // namespace

int runSendCommand(const std::string& root, const std::vector<std::string>& arguments) {
  std::set<std::string> valued = sessionOptions;
  valued.merge(std::set<std::string>{"--category", "--type", "--flag"});
  const CommandLine line(arguments, valued, {"--realtime"});
  if (line.has("--realtime") && line.text("--flag"))
    throw UsageError("--realtime is --flag 1; give one of them");
  const SessionDescription description(line);
  const Dictionary message{
      {std::string(kCorvidMessageParametersCategory),
       line.number("--category", 0, 65535).value_or(1)},
      {std::string(kCorvidMessageParametersType), line.number("--type", 0, 65535).value_or(0)},
      {std::string(kCorvidMessageParametersFlag),
       line.has("--realtime") ? 1 : line.number("--flag", 0, 3).value_or(0)},
      {std::string(kCorvidMessageParametersPayload), payloadFrom(line.words())}};

  ReportingSession session(root, description);
  std::printf("reporting through: %s\n", session.backends().c_str());
  const CallOutcome sent = session.client().sendMessageWithDictionary(message, true);
  if (sent.text) std::printf("sent:\n%s\n", sent.text->c_str());
  std::puts(fateAfter(session.client().flush(true)));
  return 0;
}

int runStatesCommand(const std::string& root, const std::vector<std::string>& arguments) {
  const CommandLine line(arguments, sessionOptions, {});
  if (!line.words().empty()) throw UsageError("unexpected " + line.words().front());
  const ReportingSession session(root, SessionDescription(line));
  std::printf("reporting through: %s\n", session.backends().c_str());
  return 0;
}

int runUploadCommand(const std::string& root, const std::vector<std::string>& arguments) {
  const CommandLine line(arguments, sessionOptions, {});
  const SessionDescription description(line);
  if (line.words().empty()) throw UsageError("upload takes the FILEs to upload");
  for (const std::string& file : line.words())
    if (access(file.c_str(), R_OK) != 0)
      throw CallError(fmt::format("cannot read {}: {}", file, std::strerror(errno)));

  ReportingSession session(root, description);
  bool allConfirmed = true;
  for (const std::string& file : line.words()) {
    std::error_code error;
    std::printf("uploading %s (%ju bytes)\n", file.c_str(),
                static_cast<std::uintmax_t>(std::filesystem::file_size(file, error)));
    std::fflush(stdout);
    if (!session.client().uploadFile(file, true).success)
      throw CallError(fmt::format("{} was not uploaded (the daemon's log says why)", file));
    // The daemon tells no more than that it was sent.
    const bool isConfirmed = access(file.c_str(), F_OK) != 0;
    allConfirmed = allConfirmed && isConfirmed;
    std::printf(isConfirmed ? "uploaded %s; the server confirmed it, so the file is gone\n"
                            : "sent %s, but the server did not confirm it; the file stays\n",
                file.c_str());
  }
  return allConfirmed ? 0 : 1;
}

}  // namespace corvid::ctl
