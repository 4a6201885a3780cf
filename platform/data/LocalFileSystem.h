// The machine's files: read with a limit, replaced in one step, told from their later states.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "base/Result.h"
#include "platform/FileSystem.h"

namespace corvid {

// Of settings, and of the machine's own small files, in bytes.
inline constexpr std::size_t settingsFileLimit = std::size_t{4} << 20;

// The whole content of a regular file of at most `limit` bytes, whatever length it claims. Anything
// else is a failure that names the file, and whose code is the system error number. Never blocks on
// what is no regular file.
Result<std::string> readRegularFile(const std::string& path, std::size_t limit = settingsFileLimit);

// What a failure of `path` says behind the name of the file, for lines that name it themselves.
std::string whatFailed(const Failure& failure, std::string_view path);

// Puts a file with this content, readable by its owner only unless `mode`, which the process's mask
// narrows, says more, in the place of `path`: whatever happens, either the old file or the whole
// new one stands there. On success the change outlasts a power failure. Where the superuser writes,
// the file goes to the folder's owner. Callers for one path take turns: the new file grows under
// the name `path` + ".new".
std::optional<Failure> replaceRegularFile(const std::string& path, std::string_view content,
                                          unsigned mode = 0600);
// The same for a path where nothing is yet, else the failure is EEXIST. On failure nothing of it is
// left.
std::optional<Failure> createRegularFile(const std::string& path, std::string_view content,
                                         unsigned mode = 0600);

// Paths of the property lists (*.plist, but not hidden) in a folder, in name order. The failure is
// the system's.
Result<std::vector<std::string>> propertyListsIn(const std::string& folder);

// Tells one state of a file from another without reading it.
struct FileStamp {
  static FileStamp of(const std::string& path);
  bool operator==(const FileStamp&) const = default;
  // Whether both are the same file with the same content. Its name, owner and mode may differ.
  bool isSameContent(const FileStamp& other) const;

  int error = 0;  // the system's, where there is no file to see
  std::uint64_t device = 0;
  std::uint64_t inode = 0;
  std::int64_t size = 0;
  std::int64_t modified = 0;  // nanoseconds since 1970
  std::int64_t changed = 0;   // of the attributes
};

// The file system as it is. Without state; files it makes are for their owner only.
class LocalFileSystem final : public FileSystem {
 public:
  Result<std::vector<std::string>> listDirectory(const std::string& path) override;
  bool createDirectories(const std::string& path) override;
  std::optional<TimeValue> creationDate(const std::string& path) override;
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
};

}  // namespace corvid
