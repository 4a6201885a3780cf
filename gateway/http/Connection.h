// One connection: one request after the other.
#pragma once

#include <chrono>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "gateway/Clients.h"
#include "gateway/Worker.h"
#include "gateway/body/Exchange.h"
#include "gateway/http/Answer.h"
#include "gateway/http/RequestParser.h"
#include "gateway/http/Transport.h"

namespace corvid::fleet {

// While it is idle it holds no buffer and no parser. Its worker keeps it until it is over; what
// waits for the system or for the log keeps it too.
//
// Threads   its worker's.
class Connection : public std::enable_shared_from_this<Connection> {
 public:
  using Time = std::chrono::steady_clock::time_point;

  // `client`: whose connection it counts as; none for a proxy's and a monitor's.
  Connection(Worker& worker, Transport transport, Role role, std::shared_ptr<Client> client);
  ~Connection();

  // `place`: where its worker keeps it.
  void start(Worker::Connections::iterator place);
  // Ends what takes too long, and lets in what had to wait.
  void look(Time now);
  // Closes it where it is idle, else after the answer.
  void stop();

 private:
  enum class Phase {
    head,       // of a request, or idle where there is no parser
    parked,     // the head is whole, and there is no room for the body
    body,       // is read
    turn,       // others have theirs
    paused,     // the exchange asked for it
    settling,   // the request is whole and waits for its verdict
    answering,  // the answer is written
    lingering,  // the answer is out; what comes is thrown away, so that the peer reads the answer
    over,
  };

  void waitForReadable();
  void waitForWritable();
  void ready();
  void read();
  void linger(std::string_view discarded);
  void peerHasGone();
  // What came, behind what was left.
  void feed(std::string_view input);
  void consume(std::string_view input);
  // False where the head was answered, or must wait.
  bool begin();
  // `hold`: how long it may wait for the log; what it waited for room is taken off.
  void beginBody(Time::duration hold);
  std::optional<Rule> admit();
  bool mustWaitOutside() const;
  void continueBody(std::string_view input);
  void follow(Exchange::Wish wish);
  void goOn();
  void finish();
  void settle(const Verdict& verdict);
  void refuse(Rule rule) { settle({.refusal = Refusal{rule}}); }
  void answer(Answer answer);
  void charge();
  void write();
  void answered();
  void next();
  void close();
  bool bodyIsLate(Time now) const;

  Worker& _worker;
  Transport _transport;
  const Role _role;
  const std::shared_ptr<Client> _ownClient;
  Worker::Connections::iterator _place{};

  Phase _phase = Phase::head;
  Time _deadline{};
  Time _heard{};  // of a body, last
  bool _isWaiting = false;
  bool _closes = false;
  std::string _pending;  // read and not taken yet
  std::string _out;      // to be written
  std::size_t _written = 0;

  // Of one request.
  std::unique_ptr<RequestParser> _parser;
  std::unique_ptr<Exchange> _exchange;
  Route _route = Route::none;
  bool _isReceived = false;         // and not settled
  std::shared_ptr<Client> _client;  // while it is charged
  std::size_t _bytes = 0;
  std::chrono::nanoseconds _worked{0};
};

}  // namespace corvid::fleet
