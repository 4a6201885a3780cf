// What the process at the other end of a socket may do.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "base/Mutex.h"
#include "base/Result.h"
#include "base/Value.h"
#include "platform/data/SettingFault.h"
#include "platform/system/PeerIdentity.h"

namespace corvid {

// One property list of the folder.
struct EntitlementFile {
  Dictionary match;
  Dictionary entitlements;
  std::string fault;                   // why it cannot be used, and what to do; empty where it can
  std::vector<SettingFault> faults{};  // of keys beside these
};

// The failure names the file, and says why it holds no dictionary.
Result<EntitlementFile> readEntitlementFile(const std::string& path);

// What the property lists of a folder (*.plist) entitle peers to. Each has a dictionary `match`
// with any of `user`, `group` (name or number), `unit` and `label`, which must all hold, and a
// dictionary `entitlements`. A group holds when it is any of the peer's. Files are taken in name
// order, and of two entitlements of one name the later counts, so that "90-local.plist" can take
// back what "10-package.plist" gives.
//
// A file that cannot be used may be one that takes back: whoever it could concern is entitled to
// nothing. That is everybody where it cannot be read or has no match, else those for whom all its
// conditions hold that can be understood.
//
// Threads: any.
class Entitlements {
 public:
  explicit Entitlements(std::string folder);

  // Everything is read at each call. A file that cannot be used and could concern the peer is
  // logged.
  Dictionary entitlementsForPeer(const PeerIdentity& peer);
  // Whether the machine has the account that a condition `user` or `group` wants.
  static bool accountExists(std::string_view condition, const Value& value);

 private:
  using AccountID = std::uint32_t;
  // An account database by name. A number that was found once holds when a later look-up finds
  // none: adding an account replaces the database, and the sandbox, which knows files and not their
  // names, does not let the new one be read before the next start.
  class AccountNames {
   public:
    using LookUp = std::optional<AccountID> (*)(const std::string& name);
    explicit AccountNames(LookUp lookUp) : _lookUp(lookUp) {}
    std::optional<AccountID> number(const std::string& name) EXCLUDES(_mutex);

   private:
    const LookUp _lookUp;
    Mutex _mutex;
    std::map<std::string, AccountID> _known GUARDED_BY(_mutex);
  };

  static std::optional<AccountID> accountID(const Value& value, AccountNames& names);
  bool holds(std::string_view condition, const Value& value, const PeerIdentity& peer);
  bool couldConcern(const PeerIdentity& peer, const Dictionary& match);

  const std::string _folder;
  AccountNames _users;
  AccountNames _groups;
};

}  // namespace corvid
