// The functions of a test sink for C.
#include <chrono>
#include <cstring>
#include <memory>
#include <utility>

#include "base/Text.h"
#include "client/Opaque.h"
#include "client/TestSink.h"

namespace {

using corvid::Dictionary;
using corvid::library::Delivery;
using corvid::library::guarded;
using corvid::library::inside;
using corvid::library::outside;
using corvid::library::Request;
using corvid::library::SinkLink;
using corvid::library::TestSink;

bool isText(const char* text) { return text == nullptr || corvid::isValidUTF8(text); }

const corvid_dictionary_t* orNone(const std::optional<Dictionary>& dictionary) {
  return dictionary ? outside(&*dictionary) : nullptr;
}

std::optional<Dictionary> copyOf(const corvid_dictionary_t* dictionary) {
  if (dictionary == nullptr) return std::nullopt;
  return inside(dictionary);
}

std::optional<std::string> copyOf(const char* text) {
  return text != nullptr ? std::optional<std::string>(text) : std::nullopt;
}

TestSink::Plan planOf(const corvid_test_answer_t& answer) {
  TestSink::Plan plan{.error = answer.error, .isWithheld = answer.withheld};
  plan.answer.isAnswered = !answer.unanswered;
  plan.answer.text = copyOf(answer.text);
  plan.answer.reason = copyOf(answer.reason);
  if (answer.reason != nullptr) plan.answer.disposition = CORVID_DISPOSITION_DROPPED;
  if (answer.states != nullptr) {
    plan.answer.states = *answer.states;
    plan.answer.reporting = answer.states->reporting;
  }
  plan.answer.success = answer.success;
  if (answer.failure != nullptr)
    plan.answer.failure = {copyOf(answer.failure->domain).value_or(""), answer.failure->code,
                           copyOf(answer.failure->description).value_or("")};
  return plan;
}

}  // namespace

corvid_test_sink_t* corvid_test_sink_create() {
  corvid_test_sink_t* sink = nullptr;
  guarded([&] {
    sink = new corvid_test_sink{std::make_shared<TestSink>()};
    return CORVID_OK;
  });
  return sink;
}

void corvid_test_sink_destroy(corvid_test_sink_t* sink) { delete sink; }

size_t corvid_test_sink_call_count(const corvid_test_sink_t* sink) {
  return sink != nullptr ? sink->sink->callCount() : 0;
}

bool corvid_test_sink_await_calls(const corvid_test_sink_t* sink, size_t count,
                                  uint32_t timeout_ms) {
  return sink != nullptr && sink->sink->awaitCalls(count, std::chrono::milliseconds(timeout_ms));
}

int corvid_test_sink_get_call(const corvid_test_sink_t* sink, size_t index,
                              corvid_test_call_t* call, size_t size) {
  if (sink == nullptr || call == nullptr || size == 0 || size > sizeof *call)
    return CORVID_ERROR_INVALID_ARGUMENT;
  const auto made = sink->sink->call(index);
  if (!made) return CORVID_ERROR_INVALID_ARGUMENT;
  const Request& request = made->request;
  const bool isMessage = request.operation == CORVID_OPERATION_SEND_MESSAGE_WITH_DICTIONARY;
  const bool hasArray = request.operation == CORVID_OPERATION_SET_SESSION_INFO ||
                        request.operation == CORVID_OPERATION_UPLOAD_LOG_DATA;
  const bool hasFile = request.operation == CORVID_OPERATION_UPLOAD_FILE;
  const corvid_test_call_t all{
      .operation = request.operation,
      .wants_answer = made->completion.wantsReply(),
      .has_aggregation_block = request.hasAggregationBlock,
      .category = request.category,
      .type = request.type,
      .session_info = orNone(request.sessionInfo),
      .user_info = orNone(request.userInfo),
      .message = isMessage ? orNone(request.content) : nullptr,
      .payload = isMessage ? nullptr : orNone(request.content),
      .array = hasArray ? outside(&request.array) : nullptr,
      .file_url = hasFile ? request.fileURL.c_str() : nullptr,
  };
  std::memcpy(call, &all, size);
  return CORVID_OK;
}

void corvid_test_sink_clear(corvid_test_sink_t* sink) {
  if (sink != nullptr) sink->sink->clear();
}

int corvid_test_sink_answer(corvid_test_sink_t* sink, corvid_operation_t operation, size_t times,
                            const corvid_test_answer_t* answer) {
  if (sink == nullptr || answer == nullptr || answer->size != sizeof *answer)
    return CORVID_ERROR_INVALID_ARGUMENT;
  if (static_cast<std::size_t>(operation) >= TestSink::operations)
    return CORVID_ERROR_INVALID_ARGUMENT;
  if (!isText(answer->text) || !isText(answer->reason)) return CORVID_ERROR_INVALID_TEXT;
  return guarded([&] {
    sink->sink->plan(operation, times, planOf(*answer));
    return CORVID_OK;
  });
}

int corvid_test_sink_deliver(corvid_test_sink_t* sink, const corvid_dictionary_t* message,
                             double timestamp, uint16_t category, uint16_t type,
                             const corvid_dictionary_t* payload) {
  if (sink == nullptr) return CORVID_ERROR_INVALID_ARGUMENT;
  return guarded([&] {
    const Delivery delivery{copyOf(message), timestamp, category, type, copyOf(payload)};
    sink->sink->happen([delivery](SinkLink& link) { link.deliver(delivery); });
    return CORVID_OK;
  });
}

int corvid_test_sink_change_states(corvid_test_sink_t* sink, const corvid_states_t* states) {
  if (sink == nullptr || states == nullptr) return CORVID_ERROR_INVALID_ARGUMENT;
  return guarded([&] {
    sink->sink->happen([copy = *states](SinkLink& link) { link.tellStates(copy); });
    return CORVID_OK;
  });
}

int corvid_test_sink_set_reachable(corvid_test_sink_t* sink, bool reachable) {
  if (sink == nullptr) return CORVID_ERROR_INVALID_ARGUMENT;
  sink->sink->setReachable(reachable);
  return CORVID_OK;
}

int corvid_test_sink_disconnect(corvid_test_sink_t* sink) {
  if (sink == nullptr) return CORVID_ERROR_INVALID_ARGUMENT;
  return guarded([&] {
    sink->sink->happen([](SinkLink& link) { link.lose(); });
    return CORVID_OK;
  });
}
