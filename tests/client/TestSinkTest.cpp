// The stand-in for a daemon in a host's own tests.
#include <gtest/gtest.h>

#include "tests/client/Host.h"

namespace corvid {
namespace {

class TestSinks : public testing::Test {
 protected:
  TestSinks() { host.options.test_sink = sink; }
  ~TestSinks() override {
    host.close();
    corvid_test_sink_destroy(sink);
  }
  corvid_test_call_t call(std::size_t index) {
    corvid_test_call_t made{};
    EXPECT_EQ(corvid_test_sink_get_call(sink, index, &made, sizeof made), CORVID_OK);
    return made;
  }
  int plan(corvid_operation_t operation, std::size_t times, const corvid_test_answer_t& answer) {
    return corvid_test_sink_answer(sink, operation, times, &answer);
  }

  corvid_test_sink_t* const sink = corvid_test_sink_create();
  Host host;
};

const corvid_test_answer_t plain = CORVID_TEST_ANSWER_INIT;

TEST_F(TestSinks, RecordEachCallWithWhatItCarries) {
  ASSERT_EQ(host.open(), CORVID_OK);
  ASSERT_EQ(host.describe(9), CORVID_OK);
  corvid_dictionary_t* const payload = corvid_dictionary_create();
  corvid_dictionary_set_integer(payload, "number", 42);
  ASSERT_EQ(corvid_session_send_message(host.session, 7, 2, payload, nullptr, nullptr, nullptr),
            CORVID_OK);
  ASSERT_EQ(corvid_session_send_message_with_dictionary(host.session, payload, Host::onText,
                                                        nullptr, &host),
            CORVID_OK);
  corvid_array_t* const data = corvid_array_create();
  ASSERT_EQ(corvid_session_upload_log_data(host.session, data, nullptr, nullptr, nullptr),
            CORVID_OK);
  ASSERT_EQ(corvid_session_upload_file(host.session, "/no such file", nullptr, nullptr, nullptr),
            CORVID_OK);
  ASSERT_EQ(corvid_session_send_single_message(host.session, payload, nullptr, 3, 4, nullptr,
                                               nullptr, nullptr, nullptr),
            CORVID_OK);
  corvid_dictionary_destroy(payload);
  corvid_array_destroy(data);
  ASSERT_TRUE(corvid_test_sink_await_calls(sink, 6, 20000));
  ASSERT_EQ(corvid_test_sink_call_count(sink), 6u);
  const auto numberIn = [](const corvid_dictionary_t* dictionary, const char* key) {
    std::int64_t number = 0;
    corvid_value_get_integer(corvid_dictionary_get(dictionary, key), &number);
    return number;
  };
  EXPECT_EQ(call(0).operation, CORVID_OPERATION_SET_SESSION_INFO);
  EXPECT_EQ(numberIn(call(0).session_info, CORVID_KEY_CLIENT_TYPE), 9);
  EXPECT_EQ(corvid_array_count(call(0).array), 0u);
  EXPECT_EQ(call(1).operation, CORVID_OPERATION_SEND_MESSAGE);
  EXPECT_EQ(call(1).category, 7);
  EXPECT_EQ(call(1).type, 2);
  EXPECT_EQ(numberIn(call(1).payload, "number"), 42);
  EXPECT_EQ(call(1).message, nullptr);
  EXPECT_FALSE(call(1).wants_answer);
  EXPECT_EQ(numberIn(call(2).message, "number"), 42);
  EXPECT_EQ(call(2).payload, nullptr);
  EXPECT_TRUE(call(2).wants_answer);
  EXPECT_NE(call(3).array, nullptr);
  EXPECT_STREQ(call(4).file_url, "file:///no%20such%20file");
  EXPECT_EQ(call(5).operation, CORVID_OPERATION_SEND_SINGLE_MESSAGE);
  EXPECT_EQ(numberIn(call(5).session_info, "number"), 42);
  EXPECT_EQ(call(5).category, 3);
  corvid_test_sink_clear(sink);
  EXPECT_EQ(corvid_test_sink_call_count(sink), 0u);
}

TEST_F(TestSinks, AnswerWithoutBeingToldSo) {
  ASSERT_EQ(host.open(), CORVID_OK);
  ASSERT_EQ(host.start(), CORVID_OK);
  ASSERT_EQ(host.send(), CORVID_OK);
  ASSERT_EQ(host.flush(), CORVID_OK);
  ASSERT_TRUE(host.await("finished 0", 3));
  EXPECT_EQ(host.lines(), (std::vector<std::string>{
                              "connected", "configured notConfigured / none / none", "finished 0",
                              "taken none", "finished 0", "flushed none", "finished 0"}));
}

TEST_F(TestSinks, AnswerTheNextCallsAsPlannedAndThenTheOthers) {
  corvid_test_answer_t dropped = plain;
  dropped.reason = "noConsent";
  corvid_test_answer_t failing = plain;
  failing.error = CORVID_ERROR_NOT_SUPPORTED;
  corvid_test_answer_t texts = plain;
  texts.text = "text";
  corvid_test_answer_t silent = plain;
  silent.unanswered = true;
  ASSERT_EQ(plan(CORVID_OPERATION_SEND_MESSAGE, 2, dropped), CORVID_OK);
  ASSERT_EQ(plan(CORVID_OPERATION_SEND_MESSAGE, 1, failing), CORVID_OK);
  ASSERT_EQ(plan(CORVID_OPERATION_SEND_MESSAGE, 1, silent), CORVID_OK);
  ASSERT_EQ(plan(CORVID_OPERATION_SEND_MESSAGE, 0, texts), CORVID_OK);
  ASSERT_EQ(host.open(), CORVID_OK);
  for (int i = 0; i < 6; ++i) ASSERT_EQ(host.send(), CORVID_OK);
  host.close();
  EXPECT_EQ(host.lines(),
            (std::vector<std::string>{"connected", "dropped noConsent none", "finished 0",
                                      "dropped noConsent none", "finished 0", "error 10",
                                      "finished 3", "finished 1", "taken text", "finished 0",
                                      "taken text", "finished 0", "released"}));
}

TEST_F(TestSinks, AnswerStatesWithReasonsAndTellTheirChange) {
  corvid_states_t* const states = corvid_states_create();
  ASSERT_EQ(corvid_states_add(states, CORVID_BACKEND_HTTP_POST, "sending", "reporting"), CORVID_OK);
  corvid_test_answer_t answer = plain;
  answer.states = states;
  ASSERT_EQ(plan(CORVID_OPERATION_START_CONFIG, 0, answer), CORVID_OK);
  ASSERT_EQ(host.open(), CORVID_OK);
  ASSERT_EQ(host.start(), CORVID_OK);
  EXPECT_TRUE(host.await("configured httpPost sending reporting / 1 / 1"));
  ASSERT_EQ(corvid_states_add(states, CORVID_BACKEND_DASHBOARD, "disabled", "noConsent"),
            CORVID_OK);
  ASSERT_EQ(corvid_test_sink_change_states(sink, states), CORVID_OK);
  EXPECT_TRUE(host.await("states httpPost sending reporting, dashboard disabled noConsent / 1"));
  corvid_states_destroy(states);
}

TEST_F(TestSinks, AnswerFlushesAndUploadsWithErrors) {
  const corvid_error_t error{"domain", 7, "no room"};
  corvid_test_answer_t failed = plain;
  failed.text = "log";
  failed.failure = &error;
  failed.success = false;
  ASSERT_EQ(plan(CORVID_OPERATION_FLUSH, 0, failed), CORVID_OK);
  ASSERT_EQ(plan(CORVID_OPERATION_UPLOAD_FILE, 0, failed), CORVID_OK);
  ASSERT_EQ(host.open(), CORVID_OK);
  ASSERT_EQ(host.flush(), CORVID_OK);
  EXPECT_TRUE(host.await("flushed log but no room"));
  const auto onUpload = [](void* context, int, bool success, const corvid_error_t* failure) {
    static_cast<Host*>(context)->note(std::string(success ? "uploaded: " : "not uploaded: ") +
                                      (failure ? failure->description : ""));
  };
  ASSERT_EQ(corvid_session_upload_file(host.session, "/dev/null", onUpload, nullptr, &host),
            CORVID_OK);
  EXPECT_TRUE(host.await("not uploaded: no room"));
  corvid_array_t* const data = corvid_array_create();
  ASSERT_EQ(corvid_session_upload_log_data(host.session, data, onUpload, nullptr, &host),
            CORVID_OK);
  corvid_array_destroy(data);
  EXPECT_TRUE(host.await("uploaded: "));
}

TEST_F(TestSinks, WithholdAnswersUntilTheDeadlineOrTheEnd) {
  host.options.answer_deadline_ms = 30;
  corvid_test_answer_t withheld = plain;
  withheld.withheld = true;
  ASSERT_EQ(plan(CORVID_OPERATION_SEND_MESSAGE, 1, withheld), CORVID_OK);
  ASSERT_EQ(host.open(), CORVID_OK);
  ASSERT_EQ(host.send(), CORVID_OK);
  ASSERT_EQ(host.send(), CORVID_OK);
  EXPECT_TRUE(host.await("taken none")) << "the others go on";
  EXPECT_TRUE(host.await("error 15"));
  host.close();

  Host patient;
  patient.options.test_sink = sink;
  ASSERT_EQ(plan(CORVID_OPERATION_SEND_MESSAGE, 1, withheld), CORVID_OK);
  ASSERT_EQ(patient.open(), CORVID_OK);
  ASSERT_EQ(patient.send(), CORVID_OK);
  ASSERT_TRUE(corvid_test_sink_await_calls(sink, 3, 20000));
  patient.close();
  EXPECT_EQ(patient.count("error 9"), 1u);
}

TEST_F(TestSinks, DeliverToTheAggregationBlock) {
  ASSERT_EQ(host.open(), CORVID_OK);
  ASSERT_EQ(corvid_session_connect(host.session), CORVID_OK);
  ASSERT_TRUE(host.await("connected"));
  corvid_dictionary_t* const payload = corvid_dictionary_create();
  ASSERT_EQ(corvid_test_sink_deliver(sink, payload, 2.5, 7, 1, payload), CORVID_OK);
  ASSERT_EQ(corvid_test_sink_deliver(sink, nullptr, 0, 0, 0, nullptr), CORVID_OK);
  corvid_dictionary_destroy(payload);
  EXPECT_TRUE(host.await("message 7 with payload"));
  EXPECT_TRUE(host.await("message 0 without"));
}

TEST_F(TestSinks, StandForADaemonThatIsNotThereAndForOneThatGoes) {
  ASSERT_EQ(corvid_test_sink_set_reachable(sink, false), CORVID_OK);
  ASSERT_EQ(host.open(), CORVID_OK);
  EXPECT_EQ(host.describe(), CORVID_ERROR_NOT_CONNECTED);
  ASSERT_EQ(corvid_test_sink_set_reachable(sink, true), CORVID_OK);
  ASSERT_EQ(host.send(), CORVID_OK);
  ASSERT_TRUE(host.await("finished 0"));
  EXPECT_EQ(call(0).operation, CORVID_OPERATION_SET_SESSION_INFO) << "the wish comes first";
  EXPECT_EQ(call(1).operation, CORVID_OPERATION_SEND_MESSAGE);
  ASSERT_EQ(corvid_test_sink_disconnect(sink), CORVID_OK);
  ASSERT_TRUE(host.await("invalidated"));
  ASSERT_EQ(host.send(), CORVID_OK);
  EXPECT_TRUE(host.await("reconnected"));
}

TEST_F(TestSinks, ServeEventLoopsAndSeveralSessions) {
  Host other;
  other.options.test_sink = sink;
  other.options.dispatch = true;
  ASSERT_EQ(host.open(), CORVID_OK);
  ASSERT_EQ(other.open(), CORVID_OK);
  ASSERT_EQ(host.send(1), CORVID_OK);
  ASSERT_EQ(other.send(2), CORVID_OK);
  ASSERT_TRUE(host.await("finished 0"));
  ASSERT_TRUE(corvid_test_sink_await_calls(sink, 2, 20000));
  EXPECT_EQ(other.count("finished 0"), 0u);
  other.close();
  EXPECT_EQ(other.count("finished 0"), 1u);
}

TEST_F(TestSinks, RefuseBadCalls) {
  corvid_test_call_t made{};
  EXPECT_EQ(corvid_test_sink_get_call(sink, 0, &made, sizeof made), CORVID_ERROR_INVALID_ARGUMENT);
  EXPECT_EQ(corvid_test_sink_get_call(nullptr, 0, &made, sizeof made),
            CORVID_ERROR_INVALID_ARGUMENT);
  EXPECT_EQ(corvid_test_sink_get_call(sink, 0, nullptr, sizeof made),
            CORVID_ERROR_INVALID_ARGUMENT);
  EXPECT_EQ(corvid_test_sink_get_call(sink, 0, &made, sizeof made + 1),
            CORVID_ERROR_INVALID_ARGUMENT);
  EXPECT_EQ(corvid_test_sink_answer(sink, CORVID_OPERATION_FLUSH, 0, nullptr),
            CORVID_ERROR_INVALID_ARGUMENT);
  EXPECT_EQ(corvid_test_sink_answer(nullptr, CORVID_OPERATION_FLUSH, 0, &plain),
            CORVID_ERROR_INVALID_ARGUMENT);
  EXPECT_EQ(plan(static_cast<corvid_operation_t>(11), 0, plain), CORVID_ERROR_INVALID_ARGUMENT);
  corvid_test_answer_t wrong = plain;
  wrong.text = "\xff";
  EXPECT_EQ(plan(CORVID_OPERATION_FLUSH, 0, wrong), CORVID_ERROR_INVALID_TEXT);
  wrong = plain;
  wrong.size = 1;
  EXPECT_EQ(plan(CORVID_OPERATION_FLUSH, 0, wrong), CORVID_ERROR_INVALID_ARGUMENT);
  EXPECT_EQ(corvid_test_sink_deliver(nullptr, nullptr, 0, 0, 0, nullptr),
            CORVID_ERROR_INVALID_ARGUMENT);
  EXPECT_EQ(corvid_test_sink_change_states(sink, nullptr), CORVID_ERROR_INVALID_ARGUMENT);
  EXPECT_EQ(corvid_test_sink_set_reachable(nullptr, true), CORVID_ERROR_INVALID_ARGUMENT);
  EXPECT_EQ(corvid_test_sink_disconnect(nullptr), CORVID_ERROR_INVALID_ARGUMENT);
  EXPECT_EQ(corvid_test_sink_call_count(nullptr), 0u);
  EXPECT_FALSE(corvid_test_sink_await_calls(nullptr, 0, 0));
  EXPECT_FALSE(corvid_test_sink_await_calls(sink, 1, 1));
  corvid_test_sink_clear(nullptr);
  corvid_test_sink_destroy(nullptr);
}

TEST_F(TestSinks, OptionsOfTheFirstVersionAreTaken) {
  corvid_options_t old = CORVID_OPTIONS_INIT;
  old.size = offsetof(corvid_options_t, connected);
  corvid_session_t* session = nullptr;
  EXPECT_EQ(corvid_session_create(&old, &session), CORVID_OK);
  corvid_session_destroy(session);
  old.size -= 1;
  EXPECT_EQ(corvid_session_create(&old, &session), CORVID_ERROR_INVALID_ARGUMENT);
  old.size = sizeof old + 1;
  EXPECT_EQ(corvid_session_create(&old, &session), CORVID_ERROR_INVALID_ARGUMENT);
}

}  // namespace
}  // namespace corvid
