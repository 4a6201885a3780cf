#include "platform/system/Entitlements.h"

#include <fmt/format.h>
#include <grp.h>
#include <pwd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <limits>
#include <utility>
#include <vector>

#include "base/Log.h"
#include "base/Reading.h"
#include "platform/data/LocalFileSystem.h"
#include "platform/data/PropertyList.h"

namespace corvid {

namespace {

// Looks `name` up with getpwnam_r or getgrnam_r, whose buffer has no known limit.
template <class Entry>
std::optional<std::uint32_t> lookedUp(const std::string& name,
                                      int (*lookUp)(const char*, Entry*, char*, std::size_t,
                                                    Entry**),
                                      std::uint32_t Entry::*id) {
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

// Why a condition cannot be understood; empty where it can.
std::string faultOf(std::string_view condition, const Value& value) {
  const bool isAccount = condition == "user" || condition == "group";
  if (!isAccount && condition != "unit" && condition != "label")
    return fmt::format(
        "refuses whom it could concern, because nothing is known of \"{}\"; use user, group, unit or label",
        condition);
  if (value.string() || (isAccount && value.integer())) return {};
  return fmt::format("refuses whom it could concern, because \"{}\" is no {}; correct its type",
                     condition, isAccount ? "name or number" : "text");
}

}  // namespace

Result<EntitlementFile> readEntitlementFile(const std::string& path) {
  const Result<Dictionary> content = readDictionaryFile(path);
  if (!content) return content.failure();
  EntitlementFile file;
  if (const Dictionary* match = dictionaryAt(content.value(), "match")) file.match = *match;
  const Dictionary* entitlements = dictionaryAt(content.value(), "entitlements");
  if (entitlements) file.entitlements = *entitlements;

  if (file.match.empty())
    file.fault = "refuses everybody; give a dictionary \"match\" with user, group, unit or label";
  for (const auto& [condition, value] : file.match)
    if (file.fault.empty()) file.fault = faultOf(condition, value);
  if (file.fault.empty() && !entitlements)
    file.fault = "refuses those who match; give a dictionary \"entitlements\"";
  constexpr std::string_view keys[] = {"match", "entitlements"};
  file.faults = unknownKeys(content.value(), keys);
  return file;
}

Entitlements::Entitlements(std::string folder)
    : _folder(std::move(folder)),
      _users([](const std::string& name) { return lookedUp(name, getpwnam_r, &passwd::pw_uid); }),
      _groups([](const std::string& name) { return lookedUp(name, getgrnam_r, &group::gr_gid); }) {}

std::optional<Entitlements::AccountID> Entitlements::AccountNames::number(const std::string& name) {
  const auto found = _lookUp(name);
  const MutexLock lock(_mutex);
  if (found) return _known[name] = *found;
  const auto known = _known.find(name);
  return known == _known.end() ? std::nullopt : std::optional(known->second);
}

// A number, its decimal text or an account's name.
std::optional<Entitlements::AccountID> Entitlements::accountID(const Value& value,
                                                               AccountNames& names) {
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

bool Entitlements::accountExists(std::string_view condition, const Value& value) {
  Entitlements machine{std::string()};
  return accountID(value, condition == "user" ? machine._users : machine._groups).has_value();
}

bool Entitlements::holds(std::string_view condition, const Value& value, const PeerIdentity& peer) {
  if (condition == "user") return accountID(value, _users) == peer.uid;
  if (condition == "group") {
    const auto id = accountID(value, _groups);
    return id && (*id == peer.gid || std::ranges::find(peer.groups, *id) != peer.groups.end());
  }
  const std::string* text = value.string();
  if (text == nullptr || text->empty()) return false;
  if (condition == "unit") return *text == peer.unit;
  return condition == "label" && *text == peer.label;
}

// As far as its conditions can be understood.
bool Entitlements::couldConcern(const PeerIdentity& peer, const Dictionary& match) {
  return std::ranges::all_of(match, [&](const Dictionary::Entry& condition) {
    return !faultOf(condition.key, condition.value).empty() ||
           holds(condition.key, condition.value, peer);
  });
}

Dictionary Entitlements::entitlementsForPeer(const PeerIdentity& peer) {
  Dictionary entitlements;
  const Result<std::vector<std::string>> paths = propertyListsIn(_folder);
  if (!paths) {
    if (paths.failure().code != ENOENT)
      logError("entitlementsForPeer: Cannot read the folder {}: {}", _folder,
               paths.failure().message);
    return entitlements;
  }
  for (const std::string& path : paths.value()) {
    const Result<EntitlementFile> file = readEntitlementFile(path);
    if (!file && file.failure().code == ENOENT) continue;  // gone since the folder was read
    if (!file) {
      logError("entitlementsForPeer: {}; refusing everybody", file.failure().message);
      return {};
    }
    if (!couldConcern(peer, file.value().match)) continue;
    if (!file.value().fault.empty()) {
      logError("entitlementsForPeer: {} {}", path, file.value().fault);
      return {};
    }
    entitlements.addEntriesFrom(file.value().entitlements);
  }
  return entitlements;
}

}  // namespace corvid
