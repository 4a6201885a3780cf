// Preference suites as property lists in a folder.
#pragma once

#include <sys/stat.h>

#include <map>
#include <string>

#include "platform/Preferences.h"
#include "platform/base/Mutex.h"

namespace corvid {

// FOLDER/<suite>.plist, mode 0600. A change is written beside the file and renamed over it, both made
// durable, under a lock that other processes take too. A file is read again when it has changed. A
// damaged one is set aside as <suite>.plist.damaged-N with one error line, and the suite is empty.
//
// Threads   any.
// Errors    A suite name that could lead out of the folder (a "/", a leading ".") has no values and
//           takes none, with one error line a call.
class FilePreferences final : public Preferences {
 public:
  explicit FilePreferences(std::string folder) : _folder(std::move(folder)) {}

  std::optional<Value> value(std::string_view suite, std::string_view key) override EXCLUDES(_mutex);
  bool setValue(std::string_view suite, std::string_view key, Value value) override EXCLUDES(_mutex);
  bool removeValue(std::string_view suite, std::string_view key) override EXCLUDES(_mutex);
  std::vector<std::string> keys(std::string_view suite) override EXCLUDES(_mutex);

 private:
  // What a suite held when its file looked like this.
  struct Suite {
    struct stat seen {};
    Dictionary values;
  };

  std::string pathOf(std::string_view suite) const;
  // The suite as its file stands now; nullptr for a name that is refused.
  const Dictionary* read(std::string_view suite) REQUIRES(_mutex);
  Dictionary load(const std::string& path) REQUIRES(_mutex);
  template <class Change>
  bool change(std::string_view suite, Change change) EXCLUDES(_mutex);
  bool write(const std::string& path, const Dictionary& values) REQUIRES(_mutex);

  const std::string _folder;
  Mutex _mutex;
  std::map<std::string, Suite, std::less<>> _suites GUARDED_BY(_mutex);
};

}  // namespace corvid
