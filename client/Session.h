// A host's session: the queue of its calls and the connection that carries them.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <memory>
#include <string>
#include <thread>

#include "base/Descriptor.h"
#include "base/Mutex.h"
#include "client/Call.h"
#include "client/Link.h"
#include "client/include/corvid/corvid.h"

namespace corvid::library {

// Threads   connect, submit and close: any. The session's own thread, which lives from start() to
//           the end of close(), waits for a connection, runs it and calls the host back, never with
//           _mutex held.
// Limits    mostQueuedCalls and mostQueuedBytes; a larger single call passes through an empty
// queue. Ownership The thread shares in the session, which may so be closed from a callback.
class Session final : public std::enable_shared_from_this<Session>, private Link::Owner {
 public:
  static constexpr std::size_t mostQueuedCalls = 4096;
  static constexpr std::size_t mostQueuedBytes = std::size_t{8} << 20;

  struct Options {
    std::string socketPath;
    std::chrono::milliseconds deadline{CORVID_DEFAULT_DEADLINE_MS};
    corvid_options_t handlers{};
  };

  explicit Session(Options options);
  // Starts the thread. Throws std::system_error.
  void start();

  // Both give a result code of the library.
  int connect();
  int submit(std::unique_ptr<Call> call);
  // Once, and nothing else after it.
  void close();

  // False in a process that was forked from the session's.
  bool isInItsProcess() const;

 private:
  using Deadline = std::chrono::steady_clock::time_point;
  enum class State { apart, connecting, connected };

  // Link::Owner, on the session's thread.
  std::unique_ptr<RemoteCall> nextCall(bool eventsToo) override;
  void nothingUnderWay() override;
  bool isStopping() override;
  void reconnected() override;
  void received(wire::Delivery::Reader delivery) override;

  void run();
  void serve(Descriptor socket);
  bool awaitSocket(Descriptor& socket);
  std::vector<std::unique_ptr<Call>> leave();

  Deadline deadline() const;
  int awaitConnection(Deadline deadline) REQUIRES(_mutex);
  bool hasRoomFor(const Call& call) const REQUIRES(_mutex);
  bool isOwnThread() const { return std::this_thread::get_id() == _threadID; }
  // Until something changes; false at the deadline, and at once on the session's thread.
  bool await(Deadline deadline) REQUIRES(_mutex);
  void wakeLink() REQUIRES(_mutex);

  // Constant after start().
  const Options _options;
  const pid_t _process;
  std::thread _thread;
  std::thread::id _threadID;

  mutable Mutex _mutex;
  std::condition_variable_any _changed;
  State _state GUARDED_BY(_mutex) = State::apart;
  Descriptor _newSocket GUARDED_BY(_mutex);                    // connected, for the thread to take
  const wire::SocketPort* _port GUARDED_BY(_mutex) = nullptr;  // while a connection is served
  std::deque<std::unique_ptr<Call>> _queue GUARDED_BY(_mutex);
  std::size_t _queuedBytes GUARDED_BY(_mutex) = 0;
  bool _linkWaits GUARDED_BY(_mutex) = false;  // it found the queue empty
  bool _callsUnderWay GUARDED_BY(_mutex) = false;
  Replay _toldLast GUARDED_BY(_mutex);  // what the daemon was told last
  Replay _replay GUARDED_BY(_mutex);    // what the new connection is to be told
  bool _wasConnected GUARDED_BY(_mutex) = false;
  bool _closing GUARDED_BY(_mutex) = false;   // no more calls
  bool _stopping GUARDED_BY(_mutex) = false;  // no more connection
};

}  // namespace corvid::library
