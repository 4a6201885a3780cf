// Uploading log data.
#include <utility>

#include "backends/dashboard/DashboardBackend.h"
#include "base/Describe.h"
#include "base/Log.h"
#include "base/Text.h"
#include "platform/Platform.h"
#include "platform/data/PropertyList.h"

namespace corvid {

bool DashboardBackend::uploadLogData(const Array& logData) {
  if (!_postURL) {
    logError("DashboardBackend(uploadLogData): Post URL for log data array is nil");
    return false;
  }
  std::optional<std::string> archive = archivedData(logData);
  if (!archive) {
    logError("DashboardBackend(uploadLogData): Failed to serialize log data array for upload");
    return false;
  }
  HTTPRequest request;
  request.method = "POST";
  request.url = *_postURL;
  request.headers = {{"Content-Type", "application/octet-stream"}};
  request.body = std::move(*archive);
  const HTTPOutcome outcome = performAndWait(Platform::current().http(), std::move(request));
  if (outcome.error || !outcome.response) {
    logError("DashboardBackend(uploadLogData): Error uploading log data array ({})",
             outcome.error ? std::string_view(outcome.error->description) : nullDescription);
    return false;
  }
  const std::string location = replacingInvalidUTF8(outcome.response->body);
  logDebug("DashboardBackend(uploadLogData): Log data uploaded to {}", location);
  const Dictionary payload{{"LogDataUploadLocation", location}};
  sendMessage(&payload, Platform::current().clock().now(), 0, 2, MessageFlag{0});
  return true;
}

}  // namespace corvid
