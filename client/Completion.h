// How a call ends for the host: what the host gave with it, and how answers are handed over.
#pragma once

#include <optional>
#include <string>
#include <type_traits>
#include <utility>

#include "base/Value.h"
#include "client/Opaque.h"
#include "client/include/corvid/corvid.h"
#include "protocol/corvid.capnp.h"
#include "protocol/wire/ValueCodec.h"

namespace corvid::library {

// Where a call's results have their text; those of an event are one.
template <class Results>
wire::TextResult::Reader textIn(const Results& results) {
  if constexpr (requires { results.getUrl(); })
    return results.getUrl();
  else if constexpr (requires { results.getResult(); })
    return results.getResult();
  else
    return results;
}

template <class Results>
bool isAnswered(const Results& results) {
  if constexpr (requires { results.getAnswered(); })
    return results.getAnswered();
  else
    return !textIn(results).isUnanswered();
}

template <class Results>
std::optional<std::string> decodedText(const Results& results) {
  if (!textIn(results).isText()) return std::nullopt;
  return wire::ValueDecoder().text(textIn(results).getText());
}

// The error object in a call's results, for as long as this lives.
class ErrorView {
 public:
  template <class Results>
  explicit ErrorView(const Results& results) {
    if constexpr (requires { results.getError(); }) {
      if (!results.hasError()) return;
      wire::ValueDecoder decoder;
      const wire::Error::Reader error = results.getError();
      _domain = decoder.text(error.getDomain());
      _description = decoder.text(error.getDescription());
      _view = {_domain.c_str(), error.getCode(), _description.c_str()};
    }
  }
  ErrorView(const ErrorView&) = delete;
  ErrorView& operator=(const ErrorView&) = delete;
  const corvid_error_t* get() const { return _view ? &*_view : nullptr; }

 private:
  std::string _domain;
  std::string _description;
  std::optional<corvid_error_t> _view;
};

// Each decodes everything before it calls the host back.

template <class Results>
void hand(corvid_text_callback_t callback, void* context, const Results& results) {
  const auto text = decodedText(results);
  callback(context, CORVID_OK, text ? text->c_str() : nullptr, text ? text->size() : 0);
}

template <class Results>
void hand(corvid_states_callback_t callback, void* context, const Results& results) {
  std::optional<Array> states;
  if (results.hasStates()) states = wire::ValueDecoder().array(results.getStates());
  callback(context, CORVID_OK, states ? outside(&std::as_const(*states)) : nullptr);
}

template <class Results>
void hand(corvid_flush_callback_t callback, void* context, const Results& results) {
  const auto text = decodedText(results);
  const ErrorView failure(results);
  callback(context, CORVID_OK, text ? text->c_str() : nullptr, text ? text->size() : 0,
           failure.get());
}

template <class Results>
void hand(corvid_success_callback_t callback, void* context, const Results& results) {
  const ErrorView failure(results);
  callback(context, CORVID_OK, results.getSuccess(), failure.get());
}

// What the host gave with a call to hear of its end; a null callback wants no reply. The callback
// of a call that has no reply is of the null pointer's type.
template <class Callback>
struct Completion {
  Callback callback;
  corvid_finished_callback_t finished;
  void* context;

  bool wantsReply() const { return callback != nullptr; }

  // Throws what a decoder throws, and the call has not ended then.
  template <class Results>
  void answer(const Results& results) const {
    if constexpr (!std::is_null_pointer_v<Callback>) {
      if (wantsReply() && isAnswered(results)) {
        hand(callback, context, results);
        return end(CORVID_OUTCOME_ANSWERED);
      }
    }
    end(wantsReply() ? CORVID_OUTCOME_UNANSWERED : CORVID_OUTCOME_DONE);
  }

  void fail(int error) const {
    if constexpr (!std::is_null_pointer_v<Callback>)
      if (wantsReply()) failWithNothing(callback, error);
    end(CORVID_OUTCOME_FAILED);
  }

 private:
  template <class... Results>
  void failWithNothing(void (*reply)(void*, int, Results...), int error) const {
    reply(context, error, Results()...);
  }
  void end(corvid_outcome_t outcome) const {
    if (finished != nullptr) finished(context, outcome);
  }
};

template <class Callback>
Completion(Callback, corvid_finished_callback_t, void*) -> Completion<Callback>;

using TextCompletion = Completion<corvid_text_callback_t>;

}  // namespace corvid::library
