#include "platform/data/DeploymentFile.h"

#include <cerrno>
#include <cstddef>

#include "platform/base/Reading.h"
#include "platform/data/LocalFileSystem.h"
#include "platform/data/PropertyList.h"

namespace corvid {

Result<Deployment> readDeployment(const std::string& path) {
  constexpr std::size_t limit = std::size_t{1} << 20;
  Deployment deployment;
  const Result<std::string> bytes = LocalFileSystem().readFile(path, limit);
  if (!bytes) {
    if (bytes.failure().code == ENOENT) return deployment;
    return bytes.failure();
  }
  const Result<Value> list = parsePropertyList(bytes.value());
  if (!list) return Failure{path + ": " + list.failure().message, EINVAL};
  const Dictionary* settings = list.value().dictionary();
  if (settings == nullptr) return Failure{path + ": the property list is no dictionary", EINVAL};
  if (const std::string* host = stringAt(*settings, "ProductionStorebagHost"))
    deployment.productionStorebagHost = *host;
  if (const std::string* host = stringAt(*settings, "InternalStorebagHost"))
    deployment.internalStorebagHost = *host;
  if (const std::string* file = stringAt(*settings, "CAFile")) deployment.caFile = *file;
  deployment.allowInsecureHTTP = booleanAt(*settings, "AllowInsecureHTTP");
  return deployment;
}

}  // namespace corvid
