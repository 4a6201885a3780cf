// On behalf of which user a thread works.
//
// What users share is charged to whoever a thread works for, so that nobody needs to hand the user
// down to where something is taken. (An object that belongs to one client knows its user itself.) A
// thread says so once, where its work for a client begins; work that goes on elsewhere takes the
// user along.
#pragma once

#include <cstdint>
#include <optional>

namespace corvid {

// By number; nothing stands for the daemon itself.
using User = std::optional<std::uint32_t>;

// Of this thread: of its innermost ActingFor, the daemon itself without one.
User actingUser();

// Makes its thread work for `user` as long as it lives.
class ActingFor {
 public:
  explicit ActingFor(User user);
  ~ActingFor();
  ActingFor(const ActingFor&) = delete;
  ActingFor& operator=(const ActingFor&) = delete;

 private:
  const User _before;
};

}  // namespace corvid
