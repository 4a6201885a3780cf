#include "client/Completion.h"

#include <cstddef>
#include <string>

#include "client/Opaque.h"

namespace corvid::library {

namespace {

thread_local const Answer* current = nullptr;

// For its scope.
class Current {
 public:
  explicit Current(const Answer& answer) : _before(current) { current = &answer; }
  ~Current() { current = _before; }
  Current(const Current&) = delete;
  Current& operator=(const Current&) = delete;

 private:
  const Answer* const _before;
};

// Calls a callback of the host with what belongs to it; without an answer, which stands for an
// error, that is nothing.
struct Handing {
  void* context;
  int error;
  const Answer* answer;

  const char* text() const { return answer && answer->text ? answer->text->c_str() : nullptr; }
  std::size_t length() const { return answer && answer->text ? answer->text->size() : 0; }
  // Valid as long as `view`.
  const corvid_error_t* failure(corvid_error_t& view) const {
    if (answer == nullptr || !answer->failure) return nullptr;
    view = {answer->failure->domain.c_str(), answer->failure->code,
            answer->failure->description.c_str()};
    return &view;
  }

  void operator()(std::monostate) const {}
  void operator()(corvid_text_callback_t callback) const {
    callback(context, error, text(), length());
  }
  void operator()(corvid_states_callback_t callback) const {
    callback(context, error, answer && answer->reporting ? outside(&*answer->reporting) : nullptr);
  }
  void operator()(corvid_flush_callback_t callback) const {
    corvid_error_t view;
    callback(context, error, text(), length(), failure(view));
  }
  void operator()(corvid_success_callback_t callback) const {
    corvid_error_t view;
    callback(context, error, answer != nullptr && answer->success, failure(view));
  }
};

}  // namespace

const Answer* currentAnswer() { return current; }

void Completion::answer(const Answer& answer) const {
  const bool hands = wantsReply() && answer.isAnswered;
  if (hands) {
    const Current scope(answer);
    std::visit(Handing{context, CORVID_OK, &answer}, callback);
  }
  if (finished == nullptr) return;
  finished(context, hands          ? CORVID_OUTCOME_ANSWERED
                    : wantsReply() ? CORVID_OUTCOME_UNANSWERED
                                   : CORVID_OUTCOME_DONE);
}

void Completion::fail(int error) const {
  std::visit(Handing{context, error, nullptr}, callback);
  if (finished != nullptr) finished(context, CORVID_OUTCOME_FAILED);
}

}  // namespace corvid::library
