// Which keys the users have used lately.
#pragma once

#include <cstddef>
#include <list>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "base/ActingUser.h"

namespace corvid {

// Keys of which each belongs to all users who have used it. Where they are too many, whoever has
// most gives up the one that he has used least recently.
//
// Not synchronised.
class RecentKeys {
 public:
  struct Use {
    User user;
    std::string key;
  };

  // What a key costs, about, with the identifier that it stands for and what is around both.
  static std::size_t costOf(const std::string& key) { return key.size() + 96; }

  bool has(User user, const std::string& key) const { return _places.contains({user, key}); }
  // From now on this is the latest.
  void use(User user, const std::string& key);
  // Until all together cost no more than that. The keys that then belong to nobody.
  std::vector<std::string> shrinkTo(std::size_t cost);
  void forget(const std::string& key);
  // The latest last.
  const std::list<Use>& uses() const { return _uses; }

 private:
  using Uses = std::list<Use>;
  void drop(Uses::iterator use);
  bool belongsToSomebody(const std::string& key) const;

  Uses _uses;
  std::map<std::pair<User, std::string>, Uses::iterator> _places;
  std::map<User, std::size_t> _costs;
  std::size_t _cost = 0;
};

}  // namespace corvid
