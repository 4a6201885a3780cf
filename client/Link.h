// Serves a session: connects its queue with the daemon and calls the host back.
#pragma once

#include <memory>
#include <thread>

namespace corvid::library {

class Session;

// Starts the session's thread, which shares in the session. It runs one connection after the other
// until the session is closed; a call that is left then fails. Throws std::system_error.
//
// A call leaves at once while few are under way; past that, calls gather in the queue and travel
// together, so that a busy daemon gets fewer and larger messages.
std::thread serve(std::shared_ptr<Session> session);

}  // namespace corvid::library
