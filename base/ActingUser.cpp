#include "base/ActingUser.h"

#include <utility>

namespace corvid {

namespace {
thread_local User userOfThread;
}

User actingUser() { return userOfThread; }

ActingFor::ActingFor(User user) : _before(std::exchange(userOfThread, user)) {}
ActingFor::~ActingFor() { userOfThread = _before; }

}  // namespace corvid
