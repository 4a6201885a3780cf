#include "bench/HandOver.h"

#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <chrono>
#include <stdexcept>
#include <thread>

#include "base/Descriptor.h"

namespace corvid::bench {

namespace {

using Clock = std::chrono::steady_clock;

struct Line {
  Descriptor from, to;

  Line() {
    std::array<int, 2> ends{};
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends.data()) != 0)
      throw std::runtime_error("there are no sockets to measure with");
    from = Descriptor(ends[0]);
    to = Descriptor(ends[1]);
  }
  bool send() const { return write(from.get(), "x", 1) == 1; }
  // False at the end of the line.
  bool receive() const {
    char byte = 0;
    return read(to.get(), &byte, 1) == 1;
  }
};

}  // namespace

std::vector<double> measureHandOvers(int count) {
  Line there, back;
  std::vector<Clock::time_point> arrivals;
  std::jthread daemon([&] {
    while (there.receive() && back.send()) continue;
    back.from.reset();
  });
  std::jthread library([&] {
    while (back.receive()) arrivals.push_back(Clock::now());
  });
  std::vector<Clock::time_point> departures;
  auto next = Clock::now();
  for (int i = 0; i < count; ++i) {
    std::this_thread::sleep_until(next += std::chrono::milliseconds(5));
    departures.push_back(Clock::now());
    if (!there.send()) throw std::runtime_error("the line is cut");
  }
  there.from.reset();
  daemon.join();
  library.join();

  std::vector<double> micros;
  for (std::size_t i = 0; i < arrivals.size(); ++i)
    micros.push_back(
        std::chrono::duration<double, std::micro>(arrivals[i] - departures[i]).count());
  return micros;
}

}  // namespace corvid::bench
