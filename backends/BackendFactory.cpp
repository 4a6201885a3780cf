// Chooses the class of a backend by its name.
#include "backends/CorvidBackend.h"
#include "backends/dashboard/DashboardBackend.h"
#include "backends/https/HTTPSPostBackend.h"
#include "backends/metrix/MetrixBackend.h"
#include "backends/upload/UploadBackend.h"
#include "backends/wattbook/WattbookBackend.h"
#include "base/Log.h"
#include "config/DeviceInformation.h"
#include "protocol/Keys.h"

namespace corvid {

namespace {

// These devices have no diagnostics service that an adaptor could forward to.
bool hasNoMetrix() { return productType() == "Lanai"; }

}  // namespace

std::shared_ptr<CorvidBackend> CorvidBackend::newBackendWithName(
    const std::string& name, const Dictionary* profile,
    const std::optional<std::string>& productFamily, std::int32_t clientType) {
  if (name == kCorvidBackendDashboard)
    return DashboardBackend::initWithName(name, profile, productFamily);
  if (name == kCorvidBackendUploadServer)
    return UploadBackend::initWithName(name, profile, productFamily);
  if (name == kCorvidBackendHTTPPost || name == kCorvidBackendHTTPPost2)
    return HTTPSPostBackend::initWithName(name, profile, productFamily);
  if (name == kCorvidBackendWattbook)
    return WattbookBackend::initWithName(name, profile, productFamily);
  if (name == kCorvidBackendMetrix && !hasNoMetrix())
    return MetrixBackend::initWithName(name, profile, productFamily, clientType);
  logError("CorvidBackend(newBackendWithName): {}", name);
  return nullptr;
}

}  // namespace corvid
