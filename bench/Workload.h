// The events of the benchmarks and a client session that sends them as fast as it may.
#pragma once

#include <corvid/corvid.h>

#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <string>

namespace corvid::bench {

using Clock = std::chrono::steady_clock;

// Payload of event `number`: texts of 16 and 36 characters, three integers and a double; with
// `textBytes` one more text of that length, of words. The caller destroys it.
corvid_dictionary_t* makePayload(std::uint64_t number, std::size_t textBytes = 0);

// Throws std::runtime_error with the library's text where `result` is not CORVID_OK.
void check(int result);

// One session, configured and started. One thread.
class Session {
 public:
  struct Description {
    int clientType = 0;
    const char* clientName = "Bench";
    bool aggregates = false;
    std::size_t textBytes = 0;  // in each payload
  };

  Session(const std::string& root, const Description& description);
  ~Session();
  Session(const Session&) = delete;
  Session& operator=(const Session&) = delete;

  // `onReply(context)` is called on the library's thread when the reply is there. Waits for room.
  void send(std::uint64_t number, bool realtime, void (*onReply)(void* context) = nullptr,
            void* context = nullptr);
  void flush();
  // Until every call made so far has been answered.
  void await();

  std::size_t answered() const { return _answered; }
  // Sends and flushes that ended with an error.
  std::size_t failed() const { return _failed; }

 private:
  struct Pending;
  static void textAnswered(void* context, int error, const char* text, std::size_t length);
  static void flushAnswered(void* context, int error, const char* text, std::size_t length,
                            const corvid_error_t* failure);
  static void finished(void* context, corvid_outcome_t outcome);

  const std::size_t _textBytes;
  corvid_session_t* _session = nullptr;
  std::size_t _made = 0;
  std::atomic<std::size_t> _ended = 0;
  std::atomic<std::size_t> _answered = 0;
  std::atomic<std::size_t> _failed = 0;
};

}  // namespace corvid::bench
