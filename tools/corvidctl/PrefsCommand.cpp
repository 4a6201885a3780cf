#include <fmt/format.h>
#include <grp.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <stdexcept>

#include "base/Describe.h"
#include "platform/Paths.h"
#include "platform/data/FilePreferences.h"
#include "platform/data/PropertyList.h"
#include "tools/Arguments.h"
#include "tools/JSONValues.h"
#include "tools/corvidctl/Commands.h"

namespace corvid::ctl {

using tools::InputError;

namespace {

Value preferenceValue(const std::string& word) {
  Result<Value> value = tools::valueFromWord(word);
  if (!value) throw InputError(value.failure().message);
  if (value.value().isNull())
    throw InputError("null is no value of a preference; prefs delete removes the key");
  return std::move(value).value();
}

std::string shown(const Value& value) {
  const std::string text = description(Array{tools::jsonFromValue(value)});
  return text.substr(1, text.size() - 2);
}

// A suite that nobody has set anything in is.
bool isReadable(const std::string& path) {
  const auto read = readDictionaryFile(path);
  return read || read.failure().code == ENOENT;
}

// What root writes could not be read by a daemon that runs as another user, and root should not
// follow that user's links.
void actAsOwnerOf(const Paths& paths) {
  struct stat status {};
  if (geteuid() != 0 || stat(paths.home.c_str(), &status) != 0 || status.st_uid == 0) return;
  if (setgroups(0, nullptr) != 0 || setgid(status.st_gid) != 0 || setuid(status.st_uid) != 0)
    throw std::runtime_error(
        fmt::format("cannot act as user {}, who owns {}", status.st_uid, paths.home));
}

}  // namespace

int runPrefsCommand(const std::string& root, const std::string& suite,
                    const std::vector<std::string>& words) {
  const std::string verb = words.empty() ? "" : words[0];
  const std::size_t wanted = verb == "set" ? 3 : verb == "list" ? 1 : 2;
  if (verb != "get" && verb != "set" && verb != "delete" && verb != "list")
    throw InputError("prefs takes get KEY, set KEY VALUE, delete KEY or list");
  if (words.size() != wanted)
    throw InputError("prefs " + verb +
                     (wanted == 1   ? " takes nothing more"
                      : wanted == 2 ? " takes a KEY"
                                    : " takes a KEY and a VALUE"));

  const Paths paths(root);
  actAsOwnerOf(paths);
  FilePreferences preferences(paths.preferencesFolder);
  if (verb == "list") {
    // Why it is not usable, the log says when the suite is read.
    const bool isUsable = FilePreferences::isSuite(suite) &&
                          isReadable(fmt::format("{}/{}.plist", paths.preferencesFolder, suite));
    for (const std::string& key : preferences.keys(suite))
      if (const auto value = preferences.value(suite, key))
        std::printf("%s = %s\n", key.c_str(), shown(*value).c_str());
    return isUsable ? 0 : 1;
  }
  const std::string& key = words[1];
  if (verb == "get") {
    const auto value = preferences.value(suite, key);
    if (!value) {
      std::fprintf(stderr, "corvidctl: %s has no key %s\n", suite.c_str(), key.c_str());
      return 1;
    }
    std::puts(shown(*value).c_str());
    return 0;
  }
  const bool done = verb == "set" ? preferences.setValue(suite, key, preferenceValue(words[2]))
                                  : preferences.removeValue(suite, key);
  return done ? 0 : 1;
}

}  // namespace corvid::ctl
