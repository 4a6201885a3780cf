// Reasons, states and answers for C.
#include <new>
#include <utility>

#include "base/Text.h"
#include "client/Answer.h"
#include "client/Completion.h"
#include "client/Opaque.h"
#include "protocol/Reason.h"

namespace {

using corvid::library::guarded;
using corvid::library::outside;

const char* orNull(const std::optional<std::string>& text) {
  return text ? text->c_str() : nullptr;
}

// The text of one backend; NULL past the end.
const char* ofBackend(const corvid_states_t* states, size_t index,
                      std::string corvid_states::Backend::*text) {
  if (index >= corvid_states_count(states)) return nullptr;
  return (states->backends[index].*text).c_str();
}

}  // namespace

const char* corvid_reason_text(const char* reason) {
  if (reason == nullptr) return nullptr;
  const auto known = corvid::reasonOf(reason);
  return known ? corvid::textOf(*known).what.data() : nullptr;
}

const char* corvid_states_reason(const corvid_states_t* states) {
  return states != nullptr ? orNull(states->reason) : nullptr;
}
size_t corvid_states_count(const corvid_states_t* states) {
  return states != nullptr ? states->backends.size() : 0;
}
const char* corvid_states_backend_name(const corvid_states_t* states, size_t index) {
  return ofBackend(states, index, &corvid_states::Backend::name);
}
const char* corvid_states_backend_state(const corvid_states_t* states, size_t index) {
  return ofBackend(states, index, &corvid_states::Backend::state);
}
const char* corvid_states_backend_reason(const corvid_states_t* states, size_t index) {
  return ofBackend(states, index, &corvid_states::Backend::reason);
}
const corvid_array_t* corvid_states_reporting(const corvid_states_t* states) {
  return states != nullptr && states->reporting ? outside(&*states->reporting) : nullptr;
}

corvid_states_t* corvid_states_create() { return new (std::nothrow) corvid_states(); }

corvid_states_t* corvid_states_copy(const corvid_states_t* states) {
  corvid_states_t* copy = nullptr;
  if (states != nullptr) guarded([&] { return copy = new corvid_states(*states), CORVID_OK; });
  return copy;
}

void corvid_states_destroy(corvid_states_t* states) { delete states; }

int corvid_states_set_reason(corvid_states_t* states, const char* reason) {
  if (states == nullptr) return CORVID_ERROR_INVALID_ARGUMENT;
  if (reason != nullptr && !corvid::isValidUTF8(reason)) return CORVID_ERROR_INVALID_TEXT;
  return guarded([&] {
    states->reason = reason != nullptr ? std::optional<std::string>(reason) : std::nullopt;
    return CORVID_OK;
  });
}

int corvid_states_add(corvid_states_t* states, const char* name, const char* state,
                      const char* reason) {
  if (states == nullptr || name == nullptr || state == nullptr || reason == nullptr)
    return CORVID_ERROR_INVALID_ARGUMENT;
  for (const char* text : {name, state, reason})
    if (!corvid::isValidUTF8(text)) return CORVID_ERROR_INVALID_TEXT;
  return guarded([&] {
    corvid_states::Backend backend{name, state, reason};
    if (!states->reporting) states->reporting.emplace();
    if (backend.state == "sending" || backend.state == "held")
      states->reporting->emplace_back(backend.name);
    states->backends.push_back(std::move(backend));
    return CORVID_OK;
  });
}

const corvid_answer_t* corvid_current_answer() { return corvid::library::currentAnswer(); }

corvid_disposition_t corvid_answer_disposition(const corvid_answer_t* answer) {
  return answer != nullptr ? answer->disposition : CORVID_DISPOSITION_UNKNOWN;
}
const char* corvid_answer_reason(const corvid_answer_t* answer) {
  return answer != nullptr ? orNull(answer->reason) : nullptr;
}
const corvid_states_t* corvid_answer_states(const corvid_answer_t* answer) {
  return answer != nullptr && answer->states ? &*answer->states : nullptr;
}
