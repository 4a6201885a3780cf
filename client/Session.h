// A host's session: whether it is connected, and the calls that wait for the connection.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <deque>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "base/Descriptor.h"
#include "base/Mutex.h"
#include "client/Call.h"
#include "client/include/corvid/corvid.h"
#include "protocol/wire/SocketPort.h"

namespace corvid::library {

// Threads   connect, submit and close: any. What serves the session runs on a thread of its own,
//           which is also the one that calls the host back; client/Link.h starts it.
// Limits    mostQueuedCalls and mostQueuedBytes; where nothing waits, a larger call is taken too.
// Locks     The host is never called with one held.
class Session {
 public:
  static constexpr std::size_t mostQueuedCalls = 4096;
  static constexpr std::size_t mostQueuedBytes = std::size_t{8} << 20;

  struct Options {
    std::string socketPath;
    std::chrono::milliseconds deadline{CORVID_DEFAULT_DEADLINE_MS};
    corvid_options_t handlers{};
  };

  explicit Session(Options options);

  // Both give a result code of the library.
  int connect() EXCLUDES(_mutex);
  int submit(std::unique_ptr<Call> call) EXCLUDES(_mutex);
  // Waits for the calls that are under way, and ends the connection. Once, and nothing else after.
  void close() EXCLUDES(_mutex);

  // False in a process that was forked from the session's.
  bool isInItsProcess() const;
  const corvid_options_t& handlers() const { return _options.handlers; }

  // The rest is for the serving thread.

  // A connected socket, as soon as there is one; nothing once the session is closed.
  std::optional<Descriptor> awaitSocket() EXCLUDES(_mutex);
  // From here to detach(), `port` is woken when calls come after next() found none, and when the
  // connection is to end. Gives what the daemon is to be told first, if this is not the first
  // connection.
  std::optional<Replay> attach(const wire::SocketPort& port) EXCLUDES(_mutex);
  void detach() EXCLUDES(_mutex);
  // What travels next; null where nothing waits, or only events while `eventsToo` is false.
  std::unique_ptr<RemoteCall> next(bool eventsToo) EXCLUDES(_mutex);
  void nothingUnderWay() EXCLUDES(_mutex);
  bool isStopping() const EXCLUDES(_mutex);
  // Gives up the connection with the calls that wait for it. Calls that come from here on wait for
  // the next one.
  std::deque<std::unique_ptr<Call>> leave() EXCLUDES(_mutex);

 private:
  using Deadline = std::chrono::steady_clock::time_point;
  enum class State { apart, connecting, connected };

  Deadline deadline() const { return std::chrono::steady_clock::now() + _options.deadline; }
  int awaitConnection(Deadline deadline) REQUIRES(_mutex);
  bool hasRoomFor(const Call& call) const REQUIRES(_mutex);
  // Until something changes; false at the deadline, and at once on the serving thread.
  bool await(Deadline deadline) REQUIRES(_mutex);
  std::unique_ptr<Call> takeFirst() REQUIRES(_mutex);
  void wakeLink() REQUIRES(_mutex);

  const Options _options;
  const pid_t _process;

  mutable Mutex _mutex;
  std::condition_variable_any _changed;
  std::thread::id _servingThread GUARDED_BY(_mutex);
  State _state GUARDED_BY(_mutex) = State::apart;
  Descriptor _newSocket GUARDED_BY(_mutex);                    // connected, to be served
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
