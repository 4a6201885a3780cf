// Chooses the class of a backend by its name.
#include "backends/CorvidBackend.h"
#include "backends/dashboard/DashboardBackend.h"
#include "backends/https/HTTPSPostBackend.h"
#include "backends/upload/UploadBackend.h"
#include "platform/base/Log.h"
#include "protocol/Keys.h"

namespace corvid {

std::shared_ptr<CorvidBackend> CorvidBackend::newBackendWithName(
    const std::string& name, const Dictionary* profile,
    const std::optional<std::string>& productFamily, std::int32_t) {
  if (name == kCorvidBackendDashboard)
    return DashboardBackend::initWithName(name, profile, productFamily);
  if (name == kCorvidBackendUploadServer)
    return UploadBackend::initWithName(name, profile, productFamily);
  if (name == kCorvidBackendHTTPPost || name == kCorvidBackendHTTPPost2)
    return HTTPSPostBackend::initWithName(name, profile, productFamily);
  logError("CorvidBackend(newBackendWithName): {}", name);
  return nullptr;
}

}  // namespace corvid
