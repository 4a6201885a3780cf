#include "platform/system/Entitlements.h"

#include <dirent.h>
#include <fmt/format.h>
#include <grp.h>
#include <pwd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstdint>
#include <cstring>
#include <limits>
#include <map>
#include <memory>
#include <optional>
#include <string_view>

#include "base/Log.h"
#include "base/Mutex.h"
#include "base/Reading.h"
#include "platform/system/SettingsFile.h"

namespace corvid {

namespace {

using AccountID = std::uint32_t;
static_assert(sizeof(uid_t) == sizeof(AccountID) && sizeof(gid_t) == sizeof(AccountID));

// Looks `name` up with getpwnam_r or getgrnam_r, whose buffer has no known limit.
template <class Entry>
std::optional<AccountID> lookedUp(const std::string& name,
                                  int (*lookUp)(const char*, Entry*, char*, std::size_t, Entry**),
                                  AccountID Entry::*id) {
  constexpr std::size_t largestEntry = std::size_t{1} << 20;
  std::vector<char> buffer(1024);
  Entry entry{};
  Entry* found = nullptr;
  while (lookUp(name.c_str(), &entry, buffer.data(), buffer.size(), &found) == ERANGE &&
         buffer.size() < largestEntry)
    buffer.resize(buffer.size() * 4);
  if (found == nullptr) return std::nullopt;
  return found->*id;
}

// The account databases by name. A number that was found once holds when a later look-up finds
// none: adding an account replaces the database, and the sandbox, which knows files and not their
// names, does not let the new one be read before the next start.
class AccountNames {
 public:
  using LookUp = std::optional<AccountID> (*)(const std::string& name);
  explicit AccountNames(LookUp lookUp) : _lookUp(lookUp) {}

  std::optional<AccountID> number(const std::string& name) EXCLUDES(_mutex) {
    const auto found = _lookUp(name);
    const MutexLock lock(_mutex);
    if (found) return _known[name] = *found;
    const auto known = _known.find(name);
    return known == _known.end() ? std::nullopt : std::optional(known->second);
  }

 private:
  const LookUp _lookUp;
  Mutex _mutex;
  std::map<std::string, AccountID> _known GUARDED_BY(_mutex);
};

AccountNames& userNames() {
  static AccountNames names(
      [](const std::string& name) { return lookedUp(name, getpwnam_r, &passwd::pw_uid); });
  return names;
}

AccountNames& groupNames() {
  static AccountNames names(
      [](const std::string& name) { return lookedUp(name, getgrnam_r, &group::gr_gid); });
  return names;
}

// A number, its decimal text or an account's name.
std::optional<AccountID> accountID(const Value& value, AccountNames& names) {
  if (const auto number = value.integer()) {
    // The last number stands for "no account" in the kernel's interfaces.
    if (*number < 0 || *number >= std::numeric_limits<AccountID>::max()) return std::nullopt;
    return static_cast<AccountID>(*number);
  }
  const std::string* text = value.string();
  if (text == nullptr || text->empty()) return std::nullopt;
  const char* const end = text->data() + text->size();
  std::int64_t number = 0;
  const auto [stop, error] = std::from_chars(text->data(), end, number);
  if (stop == end) return error == std::errc() ? accountID(number, names) : std::nullopt;
  return names.number(*text);
}

bool holds(std::string_view condition, const Value& value, const PeerIdentity& peer) {
  if (condition == "user") return accountID(value, userNames()) == peer.uid;
  if (condition == "group") {
    const auto id = accountID(value, groupNames());
    return id && (*id == peer.gid || std::ranges::find(peer.groups, *id) != peer.groups.end());
  }
  const std::string* text = value.string();
  if (text == nullptr || text->empty()) return false;
  if (condition == "unit") return *text == peer.unit;
  if (condition == "label") return *text == peer.label;
  return false;
}

bool matches(const Dictionary& file, const PeerIdentity& peer) {
  const Dictionary* match = dictionaryAt(file, "match");
  return match != nullptr && !match->empty() &&
         std::ranges::all_of(*match, [&](const Dictionary::Entry& condition) {
           return holds(condition.key, condition.value, peer);
         });
}

// Paths of the property lists in the folder, in name order.
std::vector<std::string> propertyListsIn(const std::string& folder) {
  std::vector<std::string> paths;
  const std::unique_ptr<DIR, int (*)(DIR*)> directory(opendir(folder.c_str()), closedir);
  if (!directory) {
    if (errno != ENOENT)
      logError("entitlementsForPeer: Cannot read the folder {}: {}", folder, std::strerror(errno));
    return paths;
  }
  while (const dirent* entry = readdir(directory.get())) {
    const std::string_view name = entry->d_name;
    if (name.ends_with(".plist") && !name.starts_with('.'))
      paths.push_back(fmt::format("{}/{}", folder, name));
  }
  std::ranges::sort(paths);
  return paths;
}

}  // namespace

Dictionary entitlementsForPeer(const PeerIdentity& peer, const std::string& folder) {
  Dictionary entitlements;
  for (const std::string& path : propertyListsIn(folder)) {
    const Result<Dictionary> file = readDictionaryFile(path);
    if (!file) {
      logError("entitlementsForPeer: {}; going on without it", file.failure().message);
      continue;
    }
    const Dictionary* entitled = dictionaryAt(file.value(), "entitlements");
    if (entitled != nullptr && matches(file.value(), peer)) entitlements.addEntriesFrom(*entitled);
  }
  return entitlements;
}

}  // namespace corvid
