#include "platform/data/DeploymentFile.h"

#include <fmt/format.h>

#include <cerrno>

#include "platform/base/Reading.h"
#include "platform/data/PropertyList.h"
#include "platform/data/RegularFile.h"

namespace corvid {

namespace {

void take(const Dictionary& settings, std::string_view key, auto& into) {
  if (const std::string* text = stringAt(settings, key); text && !text->empty()) into = *text;
}

}  // namespace

Result<Deployment> readDeployment(const std::string& path) {
  const Result<std::string> bytes = readRegularFile(path, PropertyListLimits().bytes);
  Deployment deployment;
  if (!bytes && bytes.failure().code == ENOENT) return deployment;
  if (!bytes) return bytes.failure();
  const Result<Value> list = parsePropertyList(bytes.value());
  if (!list) return Failure{fmt::format("{}: {}", path, list.failure().message)};
  const Dictionary* settings = list.value().dictionary();
  if (!settings) return Failure{fmt::format("{}: The property list is no dictionary", path)};

  take(*settings, "ProductionStorebagHost", deployment.productionStorebagHost);
  take(*settings, "InternalStorebagHost", deployment.internalStorebagHost);
  take(*settings, "CAFile", deployment.caFile);
  // Nothing but a plain yes lowers the guard.
  if (const Value* allow = settings->find("AllowInsecureHTTP"))
    deployment.allowInsecureHTTP = allow->boolean().value_or(false);
  return deployment;
}

}  // namespace corvid
