// Relaying files and log data to every backend.
#include <string_view>
#include <utility>

#include "base/Log.h"
#include "base/URL.h"
#include "config/MessageLog.h"
#include "session/CorviddSession.h"

namespace corvid {

namespace {

// The path of "file:///a%20b" is "/a b"; a host, a query and a fragment are no part of it.
std::string fileSystemPath(std::string_view fileURL) {
  constexpr std::string_view scheme = "file:";
  if (fileURL.starts_with(scheme)) fileURL.remove_prefix(scheme.size());
  fileURL = fileURL.substr(0, fileURL.find_first_of("?#"));
  if (fileURL.starts_with("//")) {
    const std::size_t path = fileURL.find('/', 2);
    fileURL = path == std::string_view::npos ? std::string_view() : fileURL.substr(path);
  }
  return percentDecoded(fileURL);
}

// A URL has no control characters; one that a client sends all the same writes no log line of its
// own.
std::string inOneLine(const std::string& fileURL) {
  std::string line;
  for (const char c : fileURL) {
    const bool isControl = static_cast<unsigned char>(c) < ' ' || c == '\x7f';
    line += isControl ? percentEncodedForQuery({&c, 1}) : std::string(1, c);
  }
  return line;
}

// Every backend is asked, also after one has taken the work.
template <class Upload>
bool anyBackendTakes(const BackendTable* table, Upload&& upload) {
  bool taken = false;
  if (table)
    for (const auto& [key, backend] : *table) taken |= upload(*backend);
  return taken;
}

}  // namespace

void CorviddSession::uploadFileAtPath(std::string fileURL, std::string extensionToken,
                                      SuccessReply completion) {
  logDebug("uploadFileAtPath: Uploading file for session {}", sessionID());
  uploadFileWithURL(fileURL, extensionToken, std::move(completion));
}

void CorviddSession::uploadFileWithURL(const std::string& fileURL,
                                       const std::string& extensionToken, SuccessReply completion) {
  const std::string path = fileSystemPath(fileURL);
  const bool success = anyBackendTakes(backends().get(), [&](CorvidBackend& backend) {
    return backend.uploadFileAtPath(path, extensionToken);
  });
  if (success)
    logDebug("uploadFileWithURL: File upload successful for {}", path);
  else
    logError("uploadFileWithURL: File upload failed for {}", path);
  writeToLogFile("[uploadFileWithURL] Upload {} for file {}", success ? "succeeded" : "failed",
                 inOneLine(fileURL));
  completion(success);
}

void CorviddSession::uploadLogData(Array logData, LogDataReply completion) {
  const bool success = anyBackendTakes(
      backends().get(), [&](CorvidBackend& backend) { return backend.uploadLogData(logData); });
  if (success)
    logDebug("uploadLogData: Log data array upload successful");
  else
    logError("uploadLogData: Log data array upload failed");
  completion(success, std::nullopt);
}

}  // namespace corvid
