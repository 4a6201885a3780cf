// A device that posts until the load is over.
#pragma once

#include <boost/asio/steady_timer.hpp>
#include <functional>
#include <memory>
#include <random>

#include "bench/devices/DeviceConnection.h"
#include "bench/devices/DevicePosts.h"
#include "bench/devices/FleetRun.h"

namespace corvid::bench {

// Lives until its last post is through. The loop's thread.
class Device : public std::enable_shared_from_this<Device> {
 public:
  // `finished` is called when it has ended.
  Device(FleetRun& run, std::size_t number, std::function<void()> finished);

  // Connects at some moment within `time`; `done` is called when it has, or cannot.
  void connect(std::chrono::microseconds time, std::function<void()> done);
  // Posts until `run.end`.
  void start();
  // The load is over: sleeps no longer.
  void wake() { _timer.cancel(); }

 private:
  enum class Cut { no, insideTheBody, beforeTheAnswer };

  bool happens(std::int64_t ofAHundred);
  std::chrono::microseconds within(std::chrono::microseconds time);  // some moment of it
  std::chrono::microseconds meanPause() const;
  template <class Then>
  void sleepUntil(Steady::time_point time, Then then);  // or until the end
  void pause();                                         // until its next post
  void beginPost();
  void attempt();
  void send();
  void sendSlowly(std::size_t from);
  void sent(DeviceConnection::Error error);
  void answered(DeviceConnection::Error error, DeviceConnection::Answer answer);
  void failed(DeviceConnection::Error error);

  FleetRun& _run;
  const std::size_t _number;
  const std::function<void()> _finished;
  std::mt19937_64 _random;
  const bool _isSlow;
  DevicePosts _posts;
  DeviceConnection _connection;
  boost::asio::steady_timer _timer;

  // Of the post under way.
  DevicePost _post;
  Cut _cut = Cut::no;
  bool _isAgain = false;   // it was acknowledged before
  bool _isReused = false;  // the connection had another one before
  Steady::time_point _begun;
};

}  // namespace corvid::bench
