// Another user for the length of a scope.
#pragma once

#include <sys/syscall.h>
#include <sys/types.h>
#include <unistd.h>

#include <cstdlib>

namespace corvid {

// What this thread does meanwhile, it does as a user who is nobody else's: a socket that it
// connects is that user's for good. Only the superuser can.
class AsStranger {
 public:
  static constexpr uid_t stranger = 65534;

  explicit AsStranger(uid_t user = stranger) { become(user); }
  ~AsStranger() { become(getuid()); }
  AsStranger(const AsStranger&) = delete;
  AsStranger& operator=(const AsStranger&) = delete;

 private:
  // The thread, and it alone.
  static void become(uid_t user) {
    if (syscall(SYS_setresuid, -1, user, -1) != 0) std::abort();
  }
};

}  // namespace corvid
