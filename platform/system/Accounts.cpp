#include "platform/system/Accounts.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <grp.h>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "platform/system/ProcessSetup.h"

namespace corvid {

namespace {

std::string nameOf(uid_t user) {
  const passwd* const entry = getpwuid(user);
  return entry ? std::string(entry->pw_name) : std::to_string(user);
}

// As accounts of people have it: a group of the owner's own.
bool isOwnersGroup(const struct stat& status) {
  const passwd* const owner = getpwuid(status.st_uid);
  return owner && owner->pw_gid == status.st_gid;
}

}  // namespace

Account ownAccount() { return {geteuid(), getegid(), nameOf(geteuid())}; }

std::optional<Account> ownerOf(const std::string& path) {
  struct stat status {};
  if (stat(path.c_str(), &status) != 0) return std::nullopt;
  return Account{status.st_uid, status.st_gid, nameOf(status.st_uid)};
}

std::optional<Account> accountNamed(const std::string& name) {
  const passwd* const entry = getpwnam(name.c_str());
  if (!entry) return std::nullopt;
  return Account{entry->pw_uid, entry->pw_gid, name};
}

std::optional<Failure> actAs(const Account& account) {
  if (geteuid() != account.user && (initgroups(account.name.c_str(), account.group) != 0 ||
                                    setgid(account.group) != 0 || setuid(account.user) != 0))
    return Failure{fmt::format("cannot act as user {}: {}", account.name, std::strerror(errno)),
                   errno};
  giveUpCapabilities();
  return std::nullopt;
}

bool mayEnter(const std::string& folder) {
  return faccessat(AT_FDCWD, folder.c_str(), X_OK, AT_EACCESS) == 0;
}

bool mayStart(const std::string& program) {
  struct stat status {};
  return stat(program.c_str(), &status) == 0 && S_ISREG(status.st_mode) && mayEnter(program);
}

std::optional<Writers> writersOf(const std::string& path) {
  struct stat status {};
  if (stat(path.c_str(), &status) != 0) return std::nullopt;
  Writers writers{.owner = status.st_uid};
  if (S_ISDIR(status.st_mode) && (status.st_mode & S_ISVTX) != 0) return writers;
  writers.everybody = (status.st_mode & S_IWOTH) != 0;
  writers.group = (status.st_mode & S_IWGRP) != 0 && status.st_gid != 0 && !isOwnersGroup(status);
  return writers;
}

}  // namespace corvid
