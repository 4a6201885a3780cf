// Bundles as shared libraries.
#pragma once

#include <memory>
#include <optional>
#include <string>
#include <utility>

#include "base/Mutex.h"
#include "base/Result.h"
#include "platform/BundleLoader.h"
#include "platform/data/LocalFileSystem.h"

namespace corvid {

// Loads the library at `path`, which stays in the process, and checks its table of classes.
Result<std::shared_ptr<const Bundle>> loadBundle(const std::string& path);

// Threads: any.
class DynamicBundleLoader final : public BundleLoader {
 public:
  // `tried` is the file that may be loaded. Without one, or with another at `path`, it is as if
  // there was no bundle; the log tells of the other one once.
  DynamicBundleLoader(std::string path, std::optional<FileStamp> tried)
      : _path(std::move(path)), _tried(tried) {}

  // A bundle that failed is tried again by the next call.
  std::shared_ptr<const Bundle> performanceBundle() override EXCLUDES(_mutex);

 private:
  bool isTheOneTried() REQUIRES(_mutex);

  const std::string _path;
  const std::optional<FileStamp> _tried;
  Mutex _mutex;
  std::shared_ptr<const Bundle> _bundle GUARDED_BY(_mutex);
  std::optional<FileStamp> _passedOver GUARDED_BY(_mutex);
};

}  // namespace corvid
