// One connection of an HTTPServer: reads requests, asks the handler, sends answers.
#pragma once

#include <atomic>
#include <chrono>
#include <cstddef>
#include <optional>
#include <stop_token>
#include <string>
#include <thread>

#include "tools/lab/HTTPExchange.h"
#include "tools/lab/HTTPServer.h"
#include "tools/lab/ServerStream.h"

namespace corvid::lab {

// Runs on a thread of its own from construction until the peer, the handler or breakOff ends it.
// Everything given by reference must outlive it. The destructor waits for the end.
class HTTPServerConnection {
 public:
  struct Surroundings {
    const Handler& handler;
    SSL_CTX* tls;  // none: plain
    ConnectionFault fault;
    std::size_t number;
    std::atomic<std::size_t>& requests;  // counted here
    std::atomic<std::size_t>& answers;   // those that have left wholly
  };

  HTTPServerConnection(Descriptor socket, Surroundings surroundings);

  // Any thread.
  bool isOver() const { return _over; }
  void breakOff();

 private:
  void run(std::stop_token stop);
  void serve();
  bool misbehave();
  std::optional<Request> readRequest();
  bool readHead(std::string& head);
  bool readBody(Request& request);
  bool fillBuffer();
  bool refuse(int status);  // always false
  // False where the connection ends with it.
  bool send(const Answer& answer);
  bool sendBody(const Answer& answer);
  bool pause(std::chrono::milliseconds duration);
  void waitForPeerToGo();

  const Surroundings _surroundings;
  ServerStream _stream;
  std::string _buffer;  // read, not yet used
  std::stop_token _stop;
  std::atomic<bool> _over = false;
  std::jthread _thread;  // last: uses all the others
};

}  // namespace corvid::lab
