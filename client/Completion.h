// How a call ends for the host: what the host gave with it, and how answers are handed over.
#pragma once

#include <variant>

#include "client/Answer.h"
#include "client/include/corvid/corvid.h"

namespace corvid::library {

// What the host gave with a call to hear of its end; without a callback it wants no reply.
struct Completion {
  using Callback = std::variant<std::monostate, corvid_text_callback_t, corvid_states_callback_t,
                                corvid_flush_callback_t, corvid_success_callback_t>;

  // `reply` may be null.
  template <class Reply>
  Completion(Reply reply, corvid_finished_callback_t end, void* hostContext)
      : finished(end), context(hostContext) {
    if (reply != nullptr) callback = reply;
  }
  // Of a call that has no reply.
  Completion(corvid_finished_callback_t end, void* hostContext)
      : finished(end), context(hostContext) {}

  Callback callback;
  corvid_finished_callback_t finished;
  void* context;

  bool wantsReply() const { return callback.index() != 0; }
  // Whether anybody hears of the end at all.
  bool isHeard() const { return wantsReply() || finished != nullptr; }

  // Each calls the host back, once; on the thread for that.
  void answer(const Answer& answer) const;
  void fail(int error) const;
};

// The answer that the callback on this thread is called with; null outside of one.
const Answer* currentAnswer();

}  // namespace corvid::library
