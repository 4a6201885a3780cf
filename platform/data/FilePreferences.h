// Preference suites as property lists in one folder.
#pragma once

#include <map>
#include <string>

#include "base/Mutex.h"
#include "platform/Preferences.h"
#include "platform/data/LocalFileSystem.h"

namespace corvid {

// Suite "a.b" is the file "a.b.plist" (XML as written here, binary as well as read).
//
// Threads    Any.
// Processes  Others may read and write the same folder through this class at the same time: writers
//            take turns by a lock on the folder, readers see a whole old file or a whole new one. A
//            file changed from outside, by whatever means, counts from the next read on. A read of
//            an unchanged file costs one look at its attributes.
// Files      For their owner only (mode 0600 in a folder 0700), replaced in one step and durably.
// Damage     A file that is no property list, or no dictionary, is renamed to
//            "<suite>.plist.damaged-<n>", logged as an error, and the suite starts empty. A file
//            that cannot be read, or not be set aside, is logged and stays: the suite counts as
//            empty and refuses changes.
// Errors     A reason for which changes are lost is logged once, until one succeeds.
// Limits     Suite names are up to 200 letters, digits, "-", "_" and "." (not first); others are
//            refused and logged. So are values that would make a file that cannot be read again.
class FilePreferences final : public Preferences {
 public:
  // `folder` and its parents are made at the first change.
  explicit FilePreferences(std::string folder) : _folder(std::move(folder)) {}
  // Whether a suite may have that name.
  static bool isSuite(std::string_view name);

  std::optional<Value> value(std::string_view suite, std::string_view key) override;
  bool setValue(std::string_view suite, std::string_view key, Value value) override;
  bool removeValue(std::string_view suite, std::string_view key) override;
  std::vector<std::string> keys(std::string_view suite) override;

 private:
  struct Suite {
    std::optional<FileStamp> stamp;  // of the file that `entries` were read from; nothing before
    bool isUsable = true;
    Dictionary entries;
  };

  // Reads the file unless it is the one that was read before. `isLocked`: the caller has locked the
  // folder.
  const Suite& current(std::string_view suite, bool isLocked = false) REQUIRES(_mutex);
  void load(Suite& suite, const std::string& path, bool isLocked) REQUIRES(_mutex);
  void setAside(Suite& suite, const std::string& path, const std::string& reason) REQUIRES(_mutex);
  template <class Change>
  bool change(std::string_view suite, Change apply) EXCLUDES(_mutex);
  bool write(std::string_view suite, const Dictionary& entries) REQUIRES(_mutex);
  void complain(std::string complaint) REQUIRES(_mutex);

  // Whether a file may have changed again since, and its times not show it.
  static bool isFresh(const FileStamp& stamp);
  std::string pathOf(std::string_view suite) const;

  const std::string _folder;
  Mutex _mutex;
  std::map<std::string, Suite, std::less<>> _suites GUARDED_BY(_mutex);
  std::string _complaint GUARDED_BY(_mutex);  // the last about a lost change
};

}  // namespace corvid
