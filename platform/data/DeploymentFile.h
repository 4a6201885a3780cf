// Reads etc/corvid/deployment.plist.
#pragma once

#include <string>

#include "base/Result.h"
#include "platform/Deployment.h"

namespace corvid {

// The property list's "ProductionStorebagHost", "InternalStorebagHost" and "CAFile" (texts that are
// not empty) and "AllowInsecureHTTP" (a boolean). Whatever is missing or of another type stays at
// its default, the latter listed as passed over, and so does everything where there is no file. A
// file that cannot be read, or is no dictionary, is a failure that names it.
Result<Deployment> readDeployment(const std::string& path);

}  // namespace corvid
