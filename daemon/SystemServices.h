// The one place where the system's services are put together.
#pragma once

#include <memory>
#include <optional>

#include "platform/Paths.h"
#include "platform/Platform.h"
#include "platform/data/Deployment.h"
#include "platform/data/LocalFileSystem.h"
#include "platform/system/Launcher.h"

namespace corvid {

// Everything that the daemon gets from its system. Nothing is read, opened or started yet: each
// service does that when it is first asked. Only `triedBundle` will be loaded.
Platform::Services systemServices(const Paths& paths, const Deployment& deployment,
                                  const std::shared_ptr<Clock>& clock,
                                  const std::shared_ptr<Launcher>& launcher,
                                  std::optional<FileStamp> triedBundle);

}  // namespace corvid
