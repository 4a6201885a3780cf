// The real daemon, attackers who are entitled to connect, and a victim of another user.
#pragma once

#include <sys/syscall.h>
#include <sys/types.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "base/Value.h"
#include "tests/e2e/LabFixture.h"
#include "tests/rpc/RawMessages.h"
#include "tests/rpc/WireClient.h"

namespace corvid {

// What this thread does in the object's scope, it does as that user: a socket that it connects is
// that user's for good.
class AsUser {
 public:
  explicit AsUser(uid_t user) { become(user); }
  ~AsUser() { become(getuid()); }
  AsUser(const AsUser&) = delete;
  AsUser& operator=(const AsUser&) = delete;

 private:
  // The thread, and it alone.
  static void become(uid_t user) {
    if (syscall(SYS_setresuid, -1, user, -1) != 0) std::abort();
  }
};

// The bystander is the victim. The attackers' events go to the collector "events" at once, unless
// the test publishes another storebag before a client of their type is configured.
//
// Only the superuser can be several users, which is what the tests of this machine run as.
class AttackFixture : public LabFixture {
 protected:
  static constexpr uid_t attacker = 65534;
  static constexpr uid_t secondAttacker = 65533;
  static constexpr int attackersType = 5;
  static constexpr int uploadClient = 16;
  static constexpr int unknownType = 999;
  // Sanitizers take several times as much memory and time.
  static constexpr unsigned slowness = hasSanitizer ? 8 : 1;
  static constexpr std::size_t mebibyte = std::size_t{1} << 20;

  void SetUp() override;
  // The daemon has not ended and serves.
  void TearDown() override;
  // Starts the daemon.
  virtual void launch() { startDaemon(); }

  std::string socketPath() const { return _root.path("run/corvidd/com.halcyon.corvidd"); }
  // What the daemon has kept in its message log.
  std::string messageLog() const;

  RawClient connect(uid_t user = attacker) const;
  // Connections on which a session is described and configured.
  RawClient session(uid_t user = attacker, bool batches = false) const;

  // A client of that user without the client library.
  std::unique_ptr<WireClient> wireClient(uid_t user = attacker) const;
  // The same with the object that takes the daemon's deliveries.
  std::unique_ptr<WireClient> wireClient(uid_t user,
                                         kj::Own<wire::ClientSessionReply::Server> replies) const;
  // Describes it and has it configured. With user info it requires that.
  static void configure(WireClient& client, int clientType, const Dictionary& userInfo = {},
                        bool aggregates = false);

  // What the daemon says of an upload; below 0 nothing is granted.
  static bool upload(WireClient& client, int descriptor, const std::string& url = "file:///log");

  // Until the call with that number is answered; false where the connection ends before, or nothing
  // comes for a minute.
  static bool awaitAnswer(RawClient& client, std::uint32_t question);

  // Each on a thread of its own, until all have ended.
  static void together(std::size_t count, const std::function<void(std::size_t)>& attack);
  // Runs `work` on a thread of its own until it is done, or the daemon has ended and it throws. The
  // thread gives way to others: the attack is to cost the daemon's time and not this process's.
  void start(std::function<void()> work);
  // The same with a client of that user.
  void start(uid_t user, std::function<void(WireClient&)> work);
  // Until all that was started is done.
  void awaitStarted() { _started.clear(); }

  // Victims wait less than 100 ms, and the daemon never had so much in memory, or several times as
  // much under a sanitizer.
  void expectVictimWaitsLittle(const std::function<bool()>& isOver = [] { return true; });
  void expectPeakBelow(std::size_t bytes) const;

  // Sends at least 200 events, and goes on until the attack is over; gives the time that 99 of 100
  // of them stay below.
  std::chrono::milliseconds victimWaits(const std::function<bool()>& isOver);

  // The start of a message of 16 MiB, and a little of it.
  static std::string announcement();
  // Nothing that a compressor could make smaller.
  static std::string noise(std::size_t bytes);
  static std::string describe(int clientType, bool batches = false);
  static std::string event(std::uint32_t question, const Dictionary& payload,
                           bool replyWanted = true);

 private:
  std::vector<std::jthread> _started;
};

}  // namespace corvid
