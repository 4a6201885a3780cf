// UDP sockets, and serial queues that carry the work of their owners.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>

#include "base/Result.h"

namespace corvid {

using Task = std::function<void()>;

// The address of a text in dotted-decimal form, of which 15 characters are looked at; names are not
// looked up. 255.255.255.255 for anything else. In host byte order.
std::uint32_t ipv4AddressFromText(std::string_view text);

// One IPv4 UDP socket. It never blocks and never raises a signal.
//
// Threads: one at a time. The destructor closes it.
class DatagramSocket {
 public:
  virtual ~DatagramSocket() = default;
  // Both give 0, or the system's error number. The address is in host byte order.
  virtual int bindToAnyPort() = 0;
  virtual int connect(std::uint32_t address, std::uint16_t port) = 0;
  // Whether the whole datagram went out.
  virtual bool send(std::string_view datagram) = 0;
  // Takes the next datagram, cut at the buffer's end, and gives its size; nothing where there is
  // none, and after an error, which is forgotten.
  virtual std::optional<std::size_t> receive(std::span<char> buffer) = 0;
  // What a read source waits on.
  virtual int descriptor() const = 0;
};

// Something that calls a handler on its queue until it is cancelled or destroyed.
//
// Threads: any. After cancel or destruction no handler begins; one that runs on the queue's thread
// meanwhile goes on. Either may happen in the source's own handler.
class Source {
 public:
  virtual ~Source() = default;  // as cancel, but the cancel handler is not called
  // Then the cancel handler, where there is one, runs once on the queue. A second call does
  // nothing.
  virtual void cancel() = 0;
};

// Fires at a multiple of its period since it was made, while it is armed. What is missed is not
// made up for. A disarmed timer wakes nobody.
class Timer : public Source {
 public:
  virtual void setArmed(bool isArmed) = 0;
  // Holds the object until the timer is cancelled or destroyed, or the queue has ended.
  virtual void keepAlive(std::shared_ptr<void> object) = 0;
};

// Runs tasks and handlers one after the other.
//
// Threads   Every operation: any. Tasks and handlers run on the queue's thread, must not block and
//           must not throw.
// Order     Tasks of one thread run in the order given; a task that is due with a handler runs
//           first.
// Ownership A task and its captures die on the queue's thread, or with the queue's network.
class SerialQueue {
 public:
  virtual ~SerialQueue() = default;
  virtual void async(Task task) = 0;
  // Once, no earlier than after the delay.
  virtual std::unique_ptr<Source> after(std::chrono::milliseconds delay, Task task) = 0;
  // Disarmed. Nothing where the system refuses. `period`: more than 0.
  virtual std::unique_ptr<Timer> createTimer(std::chrono::milliseconds period, Task handler,
                                             Task cancelHandler) = 0;
  // Calls the handler whenever something can be received. Nothing where the system refuses. The
  // socket must outlive the source.
  virtual std::unique_ptr<Source> createReadSource(DatagramSocket& socket, Task handler,
                                                   Task cancelHandler) = 0;
};

// Threads: any.
class Network {
 public:
  virtual ~Network() = default;
  // `label` tells people whose queue it is.
  virtual std::shared_ptr<SerialQueue> createQueue(std::string label) = 0;
  // The failure's code is the system's error number.
  virtual Result<std::unique_ptr<DatagramSocket>> openDatagramSocket() = 0;
  // Whether a task waits or runs, a timer is armed, or delayed work is due some time.
  virtual bool isBusy() const = 0;
};

}  // namespace corvid
