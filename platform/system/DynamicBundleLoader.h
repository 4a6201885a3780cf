// Bundles as shared libraries.
#pragma once

#include <memory>
#include <string>
#include <utility>

#include "platform/BundleLoader.h"
#include "platform/base/Mutex.h"

namespace corvid {

// Threads: any. What it has loaded stays in the process.
class DynamicBundleLoader final : public BundleLoader {
 public:
  // `isUsable` false: there is a bundle that must not be loaded. It is then as if there was none.
  explicit DynamicBundleLoader(std::string path, bool isUsable = true)
      : _path(std::move(path)), _isUsable(isUsable) {}

  // A bundle that failed is tried again by the next call.
  std::shared_ptr<const Bundle> performanceBundle() override;

 private:
  const std::string _path;
  const bool _isUsable;
  Mutex _mutex;
  std::shared_ptr<const Bundle> _bundle GUARDED_BY(_mutex);
};

}  // namespace corvid
