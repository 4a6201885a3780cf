#include <fmt/format.h>
#include <fmt/ranges.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <system_error>

#include "base/Describe.h"
#include "protocol/Limits.h"
#include "tools/Arguments.h"
#include "tools/JSONValues.h"
#include "tools/corvidctl/Client.h"
#include "tools/corvidctl/Commands.h"

namespace corvid::ctl {

using tools::InputError;

namespace {

Dictionary payloadFrom(const std::vector<std::string>& words) {
  Dictionary payload;
  for (const std::string& word : words) {
    const std::size_t equals = word.find('=');
    if (equals == 0 || equals == std::string::npos)
      throw InputError("a payload entry is written key=value, not " + word);
    Result<Value> value = tools::valueFromWord(word.substr(equals + 1));
    if (!value) throw InputError(word + ": " + value.failure().message);
    payload.set(word.substr(0, equals), std::move(value).value());
  }
  return payload;
}

// What became of the event, as far as the flush tells.
const char* fateAfter(const Call& flush) {
  if (flush.outcome == CORVID_OUTCOME_UNANSWERED)
    throw CallError("the daemon did not answer the flush");
  if (!flush.failure) return "flushed: the backends have handed over what they held";
  const client::Error& failure = *flush.failure;
  if (failure.description == "Nothing to flush")
    return "nothing was left to flush: the event went out at once, or no backend wanted it";
  throw CallError(fmt::format("the flush failed: {} ({} {})", failure.description, failure.domain,
                              failure.code));
}

// CallError for what no daemon would take.
std::uintmax_t sizeOfUpload(const std::string& file) {
  namespace fs = std::filesystem;
  const auto refuse = [&](std::string_view why) {
    throw CallError(fmt::format("cannot upload {}: {}", file, why));
  };
  std::error_code error;
  const fs::file_status status = fs::symlink_status(file, error);
  if (fs::is_directory(status)) refuse("it is a folder");
  if (fs::is_symlink(status)) refuse("it is a link; name the file that it leads to");
  if (access(file.c_str(), R_OK) != 0)
    throw CallError(fmt::format("cannot read {}: {}", file, std::strerror(errno)));
  if (!fs::is_regular_file(status)) refuse("it is no regular file");
  const std::uintmax_t size = fs::file_size(file, error);
  if (error) refuse(error.message());
  if (size > limits::uploadBytes)
    refuse(fmt::format("it is larger than {} MiB", limits::uploadBytes >> 20));
  return size;
}

// What the daemon says of this process's session, and what helps; where it may not be asked, who
// may.
std::string whyNothingReports(const std::string& root, const Call& started) {
  const std::vector<std::string> reasons = reasonsOfOwnSession(root);
  if (!reasons.empty()) return fmt::format("{}", fmt::join(reasons, "\n"));
  return fmt::format("{} (corvidctl sessions, run as root, says why)",
                     started.states ? "no backend of the storebag accepts this session"
                                    : "the daemon has no storebag for this client type");
}

// Connects, describes the session and configures it. CallError where nothing would report.
class ReportingSession : public Client {
 public:
  ReportingSession(const std::string& root, const SessionOptions& options) : Client(root) {
    Dictionary info{{kCorvidSessionInfoClientType, options.clientType},
                    {kCorvidSessionInfoSessionID, options.sessionID}};
    if (options.clientVersion) info.set(kCorvidSessionInfoClientVersion, *options.clientVersion);
    info.set(kCorvidSessionInfoBatchEvent, true);
    const bool hasUserInfo = !options.userInfo.empty();
    info.set(kCorvidSessionInfoRequireUserInfo, hasUserInfo);
    Call described;
    perform(described, [&](client::Session& session) {
      const client::Dictionary userInfo = clientDictionary(options.userInfo);
      return session.setSessionInfo(clientDictionary(info),
                                    hasUserInfo ? userInfo : client::Session::none(),
                                    clientArray({}), false, described.end());
    });
    Call started;
    perform(started,
            [&](client::Session& session) { return session.startConfig(started, started.end()); });
    if (!started.states || started.states->empty())
      throw CallError(fmt::format("nothing reports: {}", whyNothingReports(root, started)));
    for (const Value& name : *started.states) _backends += ' ' + description(name);
  }

  void printBackends() const { std::printf("reporting through:%s\n", _backends.c_str()); }

 private:
  std::string _backends;  // with a blank before each
};

}  // namespace

int runSendCommand(const std::string& root, const SessionOptions& options,
                   const EventOptions& event) {
  const Dictionary message{{kCorvidMessageParametersCategory, event.category},
                           {kCorvidMessageParametersType, event.type},
                           {kCorvidMessageParametersFlag, event.flag},
                           {kCorvidMessageParametersPayload, payloadFrom(event.payload)}};

  ReportingSession session(root, options);
  session.printBackends();
  Call sent;
  session.perform(sent, [&](client::Session& library) {
    return library.sendMessage(clientDictionary(message), sent, sent.end());
  });
  if (sent.text) std::printf("sent:\n%s\n", sent.text->c_str());
  Call flushed;
  session.perform(flushed,
                  [&](client::Session& library) { return library.flush(flushed, flushed.end()); });
  std::puts(fateAfter(flushed));
  return 0;
}

int runStatesCommand(const std::string& root, const SessionOptions& options) {
  ReportingSession(root, options).printBackends();
  return 0;
}

int runUploadCommand(const std::string& root, const SessionOptions& options,
                     const std::vector<std::string>& files) {
  std::vector<std::uintmax_t> sizes;
  sizes.reserve(files.size());
  for (const std::string& file : files) sizes.push_back(sizeOfUpload(file));

  ReportingSession session(root, options);
  bool allConfirmed = true;
  for (std::size_t at = 0; at < files.size(); ++at) {
    const std::string& file = files[at];
    std::printf("uploading %s (%ju bytes)\n", file.c_str(), sizes[at]);
    std::fflush(stdout);
    Call uploaded;
    session.perform(uploaded, [&](client::Session& library) {
      return library.uploadFile(file, uploaded, uploaded.end());
    });
    if (!uploaded.success)
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
