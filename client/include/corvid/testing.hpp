// Tests of C++ applications without a daemon: the test sink of testing.h, whose contract holds here
// too. Header only, and nothing here throws.
//
//   TestSink sink;
//   Session::Options options;
//   options.testSink = sink.get();
//   Session session(std::move(options));
//   TestSink::Answer dropped;
//   dropped.reason = "noConsent";
//   assert(sink.answer(CORVID_OPERATION_SEND_MESSAGE, dropped));
//
//   codeUnderTest(session);
//
//   assert(sink.awaitCalls(1));
//   assert(sink[0].category == 7);
#ifndef CORVID_TESTING_HPP
#define CORVID_TESTING_HPP

#include <corvid/testing.h>

#include <chrono>
#include <corvid/corvid.hpp>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

namespace corvid::client {

// States to answer with. What cannot be added leaves them as they were; status() is the first
// failure.
class States {
 public:
  States() : _status(get() ? CORVID_OK : CORVID_ERROR_NO_MEMORY) {}
  // Why the session has no backends.
  explicit States(const std::string& reason) : States() {
    if (_status) _status = corvid_states_set_reason(get(), reason.c_str());
  }
  // A backend whose state is "sending" or "held" reports.
  States& add(const std::string& name, const std::string& state, const std::string& reason) {
    const Status added = corvid_states_add(get(), name.c_str(), state.c_str(), reason.c_str());
    if (_status) _status = added;
    return *this;
  }
  Status status() const { return _status; }
  corvid_states_t* get() const { return _states.get(); }
  operator StatesView() const { return StatesView(get()); }

 private:
  Owner<corvid_states_t, corvid_states_destroy> _states{corvid_states_create()};
  Status _status;
};

// Stands in for the daemon. Must outlive the sessions that use it. Any thread.
class TestSink {
 public:
  // A call as a session made it. What belongs to other operations is empty. What it refers to is
  // valid until clear() and the end of the sink.
  struct Call {
    corvid_operation_t operation;
    bool wantsAnswer;  // there is a callback
    bool hasAggregationBlock;
    std::uint16_t category;
    std::uint16_t type;
    DictionaryView sessionInfo;
    DictionaryView userInfo;
    DictionaryView message;  // of sendMessage with a dictionary
    DictionaryView payload;
    ArrayView array;  // frameworks, or log data
    std::string_view fileURL;
  };
  using Iterator = ViewIterator<TestSink, Call>;

  struct Answer {
    Status error = CORVID_OK;  // a failure ends the call, and the rest is not looked at
    bool unanswered = false;   // the callback is not called
    bool withheld = false;     // nothing comes, until the answer deadline or the connection's end
    std::optional<std::string> text{};
    std::optional<std::string> reason{};  // nobody took the message, for this reason
    const States* states = nullptr;
    bool success = true;
    std::optional<Error> failure{};
  };

  // CORVID_ERROR_NO_MEMORY is all that can have gone wrong.
  Status status() const { return get() ? CORVID_OK : CORVID_ERROR_NO_MEMORY; }
  corvid_test_sink_t* get() const { return _sink.get(); }

  // The calls that have reached it so far, those of remembered wishes included.
  std::size_t size() const { return corvid_test_sink_call_count(get()); }
  // `index` is below size().
  Call at(std::size_t index) const {
    corvid_test_call_t call{};
    static_cast<void>(corvid_test_sink_get_call(get(), index, &call, sizeof call));
    return {call.operation,
            call.wants_answer,
            call.has_aggregation_block,
            call.category,
            call.type,
            DictionaryView(call.session_info),
            DictionaryView(call.user_info),
            DictionaryView(call.message),
            DictionaryView(call.payload),
            ArrayView(call.array),
            call.file_url ? std::string_view(call.file_url) : std::string_view()};
  }
  Call operator[](std::size_t index) const { return at(index); }
  Iterator begin() const { return Iterator(*this, 0); }
  Iterator end() const { return Iterator(*this, size()); }
  // Waits until there are so many; false where they have not come in that time.
  bool awaitCalls(std::size_t count,
                  std::chrono::milliseconds timeout = std::chrono::seconds(5)) const {
    return corvid_test_sink_await_calls(get(), count, static_cast<std::uint32_t>(timeout.count()));
  }
  void clear() { corvid_test_sink_clear(get()); }

  // Answers the next `times` calls of the operation with this, after what was said for it before;
  // with 0 times, all for which nothing else is said.
  Status answer(corvid_operation_t operation, const Answer& answer, std::size_t times = 0) {
    if (answer.states && !answer.states->status()) return answer.states->status();
    corvid_error_t failure{};
    corvid_test_answer_t c = CORVID_TEST_ANSWER_INIT;
    c.error = answer.error.code();
    c.unanswered = answer.unanswered;
    c.withheld = answer.withheld;
    if (answer.text) c.text = answer.text->c_str();
    if (answer.reason) c.reason = answer.reason->c_str();
    if (answer.states) c.states = answer.states->get();
    c.success = answer.success;
    if (answer.failure) {
      failure = {answer.failure->domain.c_str(), answer.failure->code,
                 answer.failure->description.c_str()};
      c.failure = &failure;
    }
    return corvid_test_sink_answer(get(), operation, times, &c);
  }

  // Calls the aggregation block of each session that is connected.
  Status deliver(std::uint16_t category, std::uint16_t type,
                 DictionaryView payload = Session::none(), DictionaryView message = Session::none(),
                 double timestamp = 0) {
    return corvid_test_sink_deliver(get(), message.get(), timestamp, category, type, payload.get());
  }
  // Calls `statesChanged` of each session that is connected.
  Status changeStates(const States& states) {
    if (!states.status()) return states.status();
    return corvid_test_sink_change_states(get(), states.get());
  }
  // Whether connections can be made, as by a daemon that runs or does not.
  Status setReachable(bool isReachable) {
    return corvid_test_sink_set_reachable(get(), isReachable);
  }
  // Ends the connections that there are, as a daemon does that ends.
  Status disconnect() { return corvid_test_sink_disconnect(get()); }

 private:
  Owner<corvid_test_sink_t, corvid_test_sink_destroy> _sink{corvid_test_sink_create()};
};

}  // namespace corvid::client

#endif  // CORVID_TESTING_HPP
