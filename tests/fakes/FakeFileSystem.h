// Files in memory, with faults by path.
#pragma once

#include <cerrno>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <vector>

#include "platform/Clock.h"
#include "platform/FileSystem.h"

namespace corvid {

class FakeFileSystem final : public FileSystem {
 public:
  struct File {
    std::string content;
    std::optional<TimeValue> created;
  };

  // New files take their creation date from `clock`.
  explicit FakeFileSystem(std::shared_ptr<Clock> clock) : _clock(std::move(clock)) {}

  Result<std::vector<std::string>> listDirectory(const std::string& path) override;
  bool createDirectories(const std::string& path) override;
  std::optional<TimeValue> creationDate(const std::string& path) override;
  // Differs where the names differ.
  std::optional<TimeValue> changeDate(const std::string& directory) override;
  std::size_t size(const std::string& path) override;
  void createFile(const std::string& path) override;
  bool exists(const std::string& path) override;
  std::optional<Failure> append(const std::string& path,
                                const std::vector<std::string_view>& pieces) override;
  std::size_t endOfLine(const std::string& path, std::size_t from, std::size_t latest) override;
  std::optional<Failure> removeRanges(const std::string& path,
                                      const std::vector<ByteRange>& ranges) override;
  Result<std::string> readFile(const std::string& path, std::size_t limit) override;
  Result<std::shared_ptr<UnnamedFile>> createUnnamedFile(const std::string& folder) override;
  void remove(const std::string& path) override;

  // The whole state, for the test to fill and read while no other thread works.
  std::map<std::string, File> files;
  std::set<std::string> directories;
  int listings = 0;
  // Faults.
  std::optional<Failure> listFailure;
  bool failCreateDirectories = false;
  bool failCreateFile = false;
  // Appends fail after this many pieces, with this error; negative: never.
  int failAppendAfter = -1;
  int appendError = EIO;
  std::optional<Failure> removeRangesFailure;
  std::optional<Failure> createUnnamedFailure;
  // What unnamed files take at most, each.
  std::size_t unnamedCapacity = ~std::size_t{0};

 private:
  std::vector<std::string> namesIn(const std::string& directory) const;

  std::mutex _mutex;
  std::shared_ptr<Clock> _clock;
};

}  // namespace corvid
