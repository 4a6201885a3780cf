// The few file operations of the local message log and of the daemon's own resources, so that tests
// can make each one fail.
//
// Paths are absolute. Threads: any.
#pragma once

#include <cstddef>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "base/Result.h"
#include "base/TimeValue.h"

namespace corvid {

// Of a file: the bytes from `begin` on that stand before `end`.
struct ByteRange {
  std::size_t begin = 0;
  std::size_t end = 0;
  bool operator==(const ByteRange&) const = default;
};

// A file without a name, which goes with the object. One thread writes it, then another may read.
class UnnamedFile {
 public:
  virtual ~UnnamedFile() = default;
  virtual std::optional<Failure> append(std::string_view bytes) = 0;
  virtual std::size_t size() const = 0;
  // As many bytes from `offset` on as there are and `room` takes; nothing where they cannot be
  // read.
  virtual std::optional<std::size_t> read(std::size_t offset, std::span<char> room) const = 0;
};

class FileSystem {
 public:
  virtual ~FileSystem() = default;
  // Names of the entries, in name order. Failure::code is the system error number (ENOENT where
  // the directory does not exist).
  virtual Result<std::vector<std::string>> listDirectory(const std::string& path) = 0;
  // The directory and all missing parents. False when it does not exist afterwards.
  virtual bool createDirectories(const std::string& path) = 0;
  // The earlier of birth and modification time; nothing where neither is known.
  virtual std::optional<TimeValue> creationDate(const std::string& path) = 0;
  // When an entry of the directory last came or went, or its rights changed; nothing where there is
  // no directory. As coarse as the file system's clock.
  virtual std::optional<TimeValue> changeDate(const std::string& directory) = 0;
  // Bytes of a file; 0 where there is none.
  virtual std::size_t size(const std::string& path) = 0;
  // An empty file; an existing one is left as it is.
  virtual void createFile(const std::string& path) = 0;
  virtual bool exists(const std::string& path) = 0;
  // Appends the pieces one after the other, one write each, to an existing regular file, never
  // through a symbolic link. The failure of the first that fails, with the system error number;
  // nothing of the pieces is then left where the system can take them back.
  virtual std::optional<Failure> append(const std::string& path,
                                        const std::vector<std::string_view>& pieces) = 0;
  // Where the line that holds the byte before `from` ends, behind its "\n"; `latest` at the latest,
  // and `from` where its end is far or cannot be read.
  virtual std::size_t endOfLine(const std::string& path, std::size_t from, std::size_t latest) = 0;
  // Takes ranges, given in their order, out of a regular file, in place. A failure may leave bytes
  // of them in it.
  virtual std::optional<Failure> removeRanges(const std::string& path,
                                              const std::vector<ByteRange>& ranges) = 0;
  // The whole content of a regular file. One that is longer than `limit` bytes, however long it
  // says it is, and anything that is no regular file is a failure; nothing blocks the caller.
  virtual Result<std::string> readFile(const std::string& path, std::size_t limit) = 0;
  // On the disk of that folder.
  virtual Result<std::shared_ptr<UnnamedFile>> createUnnamedFile(const std::string& folder) = 0;
  // Errors are ignored.
  virtual void remove(const std::string& path) = 0;
};

}  // namespace corvid
