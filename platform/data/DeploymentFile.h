// Reads what the deployment sets.
#pragma once

#include <string>

#include "platform/Deployment.h"
#include "platform/base/Result.h"

namespace corvid {

// A missing file gives the defaults; one that is damaged or cannot be read a failure that says what
// and where.
Result<Deployment> readDeployment(const std::string& path);

}  // namespace corvid
