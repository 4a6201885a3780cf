// Serves a session: connects its queue with whoever answers, and calls the host back.
#pragma once

#include <cstdint>
#include <list>
#include <memory>
#include <thread>
#include <vector>

#include "base/Mutex.h"
#include "client/Answer.h"
#include "client/Call.h"
#include "client/Session.h"

namespace corvid::library {

// Starts the session's thread, which shares in the session. It runs one connection after the other
// until the session is closed; a call that is left then fails. Throws std::system_error.
//
// A call leaves at once while few are under way, on its caller's thread where none is; past that,
// calls gather in the queue and travel together, so that a busy daemon gets fewer and larger
// messages.
std::thread serve(std::shared_ptr<Session> session);

// One connection: what is under way in it. Who is at its other end is a derived class's matter.
//
// Threads: the session's, and sendMeanwhile any.
class Link {
 public:
  explicit Link(Session& session) : _session(session) {}
  virtual ~Link() = default;
  Link(const Link&) = delete;
  Link& operator=(const Link&) = delete;

  // Tells the wishes first, then serves until the connection is lost or the session stops.
  void run(const Wishes& wishes, bool isFirst) EXCLUDES(_atWork);
  // While the session's thread waits in turn(): sends what the session's queue holds. False where
  // it is at work, or has to be for what comes.
  bool sendMeanwhile() EXCLUDES(_atWork);
  // Ends the calls that are under way, in order.
  void failAll(int error);

 protected:
  // Takes what the parcel asks as the question with that number, which is not answered before this
  // returns. It leaves in turn() or leaveNow().
  virtual void send(std::uint32_t question, const Parcel& parcel) = 0;
  // Whether more may be sent now.
  virtual bool takesMore() const { return true; }
  // Has what was taken leave, as far as that needs no waiting; false where some is left.
  virtual bool leaveNow() { return true; }
  // Waits for the session's news or the other end, at most until then, and takes in what came.
  // Where the host is busy nothing is taken in that would call it back.
  virtual void turn(Session::Time until, bool hostIsBusy) REQUIRES(_atWork) = 0;
  // Runs `wait`, which touches nothing of the link, and lets others send meanwhile.
  template <class Wait>
  auto whileOthersSend(Wait wait) REQUIRES(_atWork) {
    _atWork.unlock();
    const auto result = wait();
    _atWork.lock();
    return result;
  }

  // Null where it is not under way (any more).
  const Parcel* parcelOf(std::uint32_t question) const;
  // Ends a question's calls: each with its answer, in order, or all with an error.
  void answer(std::uint32_t question, std::vector<Answer> answers);
  void fail(std::uint32_t question, int error);
  // The same by single calls, and then of the question as a whole.
  void endCall(const SharedCall& call, Answer answer);
  void failCall(const SharedCall& call, int error);
  void withhold(const SharedCall& call);  // it gets no answer
  void done(std::uint32_t question);
  void deliver(Delivery delivery);
  void tellStates(States states);
  void lose() { _isLost = true; }
  bool isLost() const { return _isLost; }

  Session& _session;
  // Held by whoever touches what follows, until the connection is lost or the session stops; from
  // then on that is the session's thread's alone.
  Mutex _atWork;

 private:
  struct UnderWay {
    std::uint32_t question;
    Parcel parcel;
    bool isWish;
    bool isUnsent = false;  // for want of memory
  };
  using Place = std::list<UnderWay>::iterator;

  void start(Parcel parcel, bool isWish);
  std::uint32_t freeQuestion() const;
  Place find(std::uint32_t question);
  UnderWay take(Place place);
  void wishTaken();
  void sendWhatWaits();
  void failUnsent();
  // Ends calls whose time is over; gives when the next one's is.
  Session::Time expire();
  void tellConnected();
  // Calls a handler of the host, unless it is null or the session stops.
  template <class Handler, class Call>
  void tellHost(Handler handler, Call call, std::size_t bytes = 0);

  std::list<UnderWay> _underWay;  // in order
  std::vector<SharedCall> _withheld;
  std::size_t _batchesUnderWay = 0;
  std::size_t _wishesLeft = 0;
  bool _isFirst = false;
  bool _isLost = false;
};

}  // namespace corvid::library
