// A reply callback that remembers how it was answered.
#pragma once

#include <memory>
#include <mutex>
#include <stdexcept>
#include <tuple>
#include <utility>
#include <vector>

#include "protocol/Reply.h"

namespace corvid {

template <class... Results>
class RecordedReply {
 public:
  using Answer = std::tuple<Results...>;

  // For one call. May be answered on any thread, also after this object is gone.
  Reply<Results...> reply() { return Reply<Results...>(std::make_unique<Sink>(_state)); }

  std::size_t answers() const {
    std::lock_guard lock(_state->mutex);
    return _state->answers.size();
  }
  // The reply was destroyed without an answer.
  bool unanswered() const {
    std::lock_guard lock(_state->mutex);
    return _state->dropped;
  }
  // The only answer. Throws unless there is exactly one.
  Answer answer() const {
    std::lock_guard lock(_state->mutex);
    if (_state->answers.size() != 1) throw std::logic_error("not answered exactly once");
    return _state->answers.front();
  }
  // The first result of the only answer.
  auto result() const { return std::get<0>(answer()); }

 private:
  struct State {
    std::mutex mutex;
    std::vector<Answer> answers;
    bool dropped = false;
  };
  struct Sink final : ReplySink<Results...> {
    explicit Sink(std::shared_ptr<State> shared) : state(std::move(shared)) {}
    ~Sink() override {
      std::lock_guard lock(state->mutex);
      state->dropped = !answered;
    }
    void answer(Results... results) override {
      std::lock_guard lock(state->mutex);
      answered = true;
      state->answers.emplace_back(std::move(results)...);
    }
    std::shared_ptr<State> state;
    bool answered = false;
  };

  std::shared_ptr<State> _state = std::make_shared<State>();
};

}  // namespace corvid
