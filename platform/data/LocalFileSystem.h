// The machine's file system.
#pragma once

#include "platform/FileSystem.h"

namespace corvid {

// Without state; files it makes are for their owner only.
class LocalFileSystem final : public FileSystem {
 public:
  Result<std::vector<std::string>> listDirectory(const std::string& path) override;
  bool createDirectories(const std::string& path) override;
  std::optional<TimeValue> creationDate(const std::string& path) override;
  std::optional<TimeValue> changeDate(const std::string& directory) override;
  std::size_t size(const std::string& path) override;
  void createFile(const std::string& path) override;
  bool exists(const std::string& path) override;
  bool append(const std::string& path, const std::vector<std::string_view>& pieces) override;
  Result<std::string> readFile(const std::string& path, std::size_t limit) override;
  void remove(const std::string& path) override;
};

}  // namespace corvid
