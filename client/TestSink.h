// What stands in for the daemon in a host's own tests: records calls and answers what it was told.
#pragma once

#include <array>
#include <chrono>
#include <cstddef>
#include <deque>
#include <functional>
#include <memory>
#include <vector>

#include "base/Mutex.h"
#include "client/Answer.h"
#include "client/Call.h"
#include "client/Link.h"
#include "client/include/corvid/corvid.h"

namespace corvid::library {

class SinkLink;

// Threads: any.
class TestSink : public std::enable_shared_from_this<TestSink> {
 public:
  static constexpr std::size_t operations = CORVID_OPERATION_SEND_SINGLE_MESSAGE + 1;

  // How a call is to end.
  struct Plan {
    int error = CORVID_OK;
    bool isWithheld = false;
    Answer answer{};
  };
  // What happens to a connection, on its session's thread.
  using Event = std::function<void(SinkLink&)>;

  TestSink();

  bool isReachable() const EXCLUDES(_mutex);
  void setReachable(bool reachable) EXCLUDES(_mutex);
  std::unique_ptr<Link> link(Session& session);

  std::size_t callCount() const EXCLUDES(_mutex);
  bool awaitCalls(std::size_t count, std::chrono::milliseconds limit) const EXCLUDES(_mutex);
  // Null past the end.
  SharedCall call(std::size_t index) const EXCLUDES(_mutex);
  void clear() EXCLUDES(_mutex);

  // For the next so many calls of the operation; 0: for all others.
  void plan(corvid_operation_t operation, std::size_t times, Plan plan) EXCLUDES(_mutex);
  // Has it happen to each connection that there is.
  void happen(const Event& event) EXCLUDES(_mutex);

 private:
  friend class SinkLink;
  struct Planned {
    std::size_t times;
    Plan plan;
  };
  struct Plans {
    std::deque<Planned> next;
    Plan otherwise;
  };

  // Notes a call, and gives how it is to end.
  Plan take(const SharedCall& call) EXCLUDES(_mutex);
  void attach(SinkLink& link) EXCLUDES(_mutex);
  void detach(SinkLink& link) EXCLUDES(_mutex);
  std::vector<Event> eventsOf(const SinkLink& link) EXCLUDES(_mutex);

  struct Attached {
    SinkLink* link;
    std::vector<Event> events;
  };

  mutable Mutex _mutex;
  mutable Condition _called;
  bool _isReachable GUARDED_BY(_mutex) = true;
  std::vector<SharedCall> _calls GUARDED_BY(_mutex);
  std::array<Plans, operations> _plans GUARDED_BY(_mutex);
  std::vector<Attached> _attached GUARDED_BY(_mutex);
};

// A connection that ends at a test sink.
class SinkLink final : public Link {
 public:
  SinkLink(Session& session, std::shared_ptr<TestSink> sink);
  ~SinkLink() override;

  // For events.
  using Link::deliver;
  using Link::lose;
  using Link::tellStates;
  void wake() const { _session.news().wake(); }

 private:
  struct Pending {
    std::uint32_t question;
    std::vector<std::pair<SharedCall, TestSink::Plan>> calls;
  };

  void send(std::uint32_t question, const Parcel& parcel) override;
  void turn(Session::Time until, bool hostIsBusy) override;
  void end(Pending pending);

  const std::shared_ptr<TestSink> _sink;
  std::vector<Pending> _pending;
};

}  // namespace corvid::library

// The C type of a sink, which the sessions share in.
struct corvid_test_sink {
  const std::shared_ptr<corvid::library::TestSink> sink;
};
