// A host's session: whether it is connected, and the calls that wait for the connection.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <cstddef>
#include <deque>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "base/Descriptor.h"
#include "base/Mutex.h"
#include "base/Wakeup.h"
#include "client/Call.h"
#include "client/Callbacks.h"
#include "client/include/corvid/corvid.h"

namespace corvid::library {

class Link;
class TestSink;

// Threads   connect, submit, dispatch and close: any. What serves the session runs on a thread of
//           its own; client/Link.h starts it.
// Limits    mostQueuedCalls and mostQueuedBytes; where nothing waits, a larger call is taken too.
// Locks     The host is never called with one held.
class Session {
 public:
  static constexpr std::size_t mostQueuedCalls = 4096;
  static constexpr std::size_t mostQueuedBytes = std::size_t{8} << 20;

  using Time = Call::Time;

  struct Options {
    std::string socketPath;
    std::chrono::milliseconds deadline{CORVID_DEFAULT_DEADLINE_MS};
    std::optional<std::chrono::milliseconds> answerDeadline{};
    corvid_options_t handlers{};
    bool dispatches = false;           // callbacks wait for dispatch()
    std::shared_ptr<TestSink> sink{};  // in place of a daemon; null: none
  };

  // Throws std::system_error where the system has no descriptor left.
  explicit Session(Options options);

  // Both give a result code of the library.
  int connect() EXCLUDES(_mutex);
  int submit(SharedCall call) EXCLUDES(_mutex);
  // Runs the callbacks that wait.
  void dispatch();
  // Waits for the calls that are under way, and ends the connection. Once, and nothing else after.
  void close() EXCLUDES(_mutex);

  // False in a process that was forked from the session's.
  bool isInItsProcess() const;
  const corvid_options_t& handlers() const { return _options.handlers; }
  const std::shared_ptr<TestSink>& sink() const { return _options.sink; }
  Callbacks& callbacks() { return _callbacks; }
  bool hasAnswerDeadline() const { return _options.answerDeadline.has_value(); }

  // The rest is for the serving thread.

  // A connection that has just been made.
  struct Connection {
    Descriptor socket;  // none to a test sink
    Wishes wishes;      // what is to be told first
    bool isFirst = false;
  };
  // As soon as there is one; nothing once the session is closed.
  std::optional<Connection> awaitConnection() EXCLUDES(_mutex);
  // What may send calls on the threads that make them, until leave().
  void offer(std::shared_ptr<Link> link) EXCLUDES(_mutex);
  // Woken when calls come after next() found none, when callbacks have room again, and when the
  // connection is to end. Any thread may wake it.
  const Wakeup& news() const { return _news; }
  // What travels next; nothing where nothing waits, or only events while `eventsToo` is false.
  std::optional<Parcel> next(bool eventsToo) EXCLUDES(_mutex);
  void nothingUnderWay() EXCLUDES(_mutex);
  bool isStopping() const EXCLUDES(_mutex);
  // Whether the host takes no more callbacks at the moment. Not while it closes the session.
  bool hostIsBusy() const EXCLUDES(_mutex);
  // Adds the waiting calls that were to be answered by now, which still travel. Gives when the next
  // of the others is; the end of time where none is.
  Time addExpired(Time now, std::vector<SharedCall>& expired) const EXCLUDES(_mutex);
  // Gives up the connection with the calls that wait for it. Calls that come from here on wait for
  // the next one.
  std::deque<SharedCall> leave() EXCLUDES(_mutex);

 private:
  using Deadline = std::chrono::steady_clock::time_point;
  enum class State { apart, connecting, connected };

  Deadline deadline() const { return std::chrono::steady_clock::now() + _options.deadline; }
  int awaitConnected(Deadline deadline) REQUIRES(_mutex);
  int connectWithin(Deadline deadline, Descriptor& socket) const;
  int enqueue(SharedCall call, Deadline until) REQUIRES(_mutex);
  bool hasRoomFor(const Call& call) const REQUIRES(_mutex);
  // Until something changes; false at the deadline, and at once in a callback.
  bool await(Deadline deadline) REQUIRES(_mutex);
  SharedCall takeFirst() REQUIRES(_mutex);

  const Options _options;
  const pid_t _process;
  const Wakeup _news;
  Callbacks _callbacks;

  mutable Mutex _mutex;
  Condition _changed;
  State _state GUARDED_BY(_mutex) = State::apart;
  std::optional<Connection> _new GUARDED_BY(_mutex);  // connected, to be served
  std::shared_ptr<Link> _link GUARDED_BY(_mutex);     // where there is one to be used here
  std::deque<SharedCall> _queue GUARDED_BY(_mutex);
  std::size_t _queuedBytes GUARDED_BY(_mutex) = 0;
  bool _linkWaits GUARDED_BY(_mutex) = false;  // it found the queue empty
  bool _callsUnderWay GUARDED_BY(_mutex) = false;
  Wishes _wishes GUARDED_BY(_mutex);
  bool _wasConnected GUARDED_BY(_mutex) = false;
  bool _closing GUARDED_BY(_mutex) = false;   // no more calls
  bool _stopping GUARDED_BY(_mutex) = false;  // no more connection
};

}  // namespace corvid::library
