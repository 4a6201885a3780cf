// Users, and what they may do with files.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "base/Result.h"

namespace corvid {

struct Account {
  std::uint32_t user = 0;
  std::uint32_t group = 0;
  std::string name;  // the number where there is none
};

// That this process acts as.
Account ownAccount();
// Nothing where there is no such file; links are followed.
std::optional<Account> ownerOf(const std::string& path);
std::optional<Account> accountNamed(const std::string& name);
// Acts as that account from here on, and without any capability.
std::optional<Failure> actAs(const Account& account);

// Whether the process may enter the folder, and whether a file is a program that it may start.
bool mayEnter(const std::string& folder);
bool mayStart(const std::string& program);

// Who can change a file, or what stands in a folder.
struct Writers {
  std::uint32_t owner = 0;
  bool everybody = false;
  bool group = false;  // one that has others than root or the owner
};
// Nothing where there is no such file. In a sticky folder each only changes his own.
std::optional<Writers> writersOf(const std::string& path);

}  // namespace corvid
