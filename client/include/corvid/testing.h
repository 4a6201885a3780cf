/* Tests of applications without a daemon. Include corvid.h, which includes this.
 *
 * A test sink stands in for the daemon: it records what sessions ask and answers what the test
 * says. No process, no socket. One may serve several sessions. Its functions may be called from any
 * thread, in callbacks too. Until it is told otherwise it can be reached, answers messages with
 * nothing as taken, states with none for the reason "notConfigured", everything else with nothing,
 * and uploads with success.
 *
 *   corvid_test_sink_t* sink = corvid_test_sink_create();
 *   corvid_options_t options = CORVID_OPTIONS_INIT;
 *   options.test_sink = sink;
 *   corvid_session_create(&options, &session);
 *
 *   corvid_test_answer_t dropped = CORVID_TEST_ANSWER_INIT;
 *   dropped.reason = "noConsent";
 *   corvid_test_sink_answer(sink, CORVID_OPERATION_SEND_MESSAGE, 1, &dropped);
 *
 *   code_under_test(session);
 *
 *   corvid_test_call_t call;
 *   assert(corvid_test_sink_await_calls(sink, 1, 1000));
 *   assert(corvid_test_sink_get_call(sink, 0, &call, sizeof call) == CORVID_OK);
 *   assert(call.operation == CORVID_OPERATION_SEND_MESSAGE && call.category == 7);
 *
 *   corvid_session_destroy(session);
 *   corvid_test_sink_destroy(sink);
 */
#ifndef CORVID_TESTING_H
#define CORVID_TESTING_H

#include <corvid/corvid.h>

#ifdef __cplusplus
extern "C" {
#endif

typedef enum {
  CORVID_OPERATION_SET_SESSION_INFO = 0,
  CORVID_OPERATION_START_CONFIG = 1,
  CORVID_OPERATION_FETCH_STATES = 2,
  CORVID_OPERATION_FETCH_DISPLAY_URL = 3,
  CORVID_OPERATION_SEND_MESSAGE = 4,
  CORVID_OPERATION_SEND_MESSAGE_WITH_DICTIONARY = 5,
  CORVID_OPERATION_FLUSH = 6,
  CORVID_OPERATION_FINISH = 7,
  CORVID_OPERATION_UPLOAD_FILE = 8,
  CORVID_OPERATION_UPLOAD_LOG_DATA = 9,
  CORVID_OPERATION_SEND_SINGLE_MESSAGE = 10
} corvid_operation_t;

/* A call as a session made it. What belongs to other operations is NULL, 0 or false. What it points
 * to is valid until corvid_test_sink_clear and corvid_test_sink_destroy. */
typedef struct {
  corvid_operation_t operation;
  bool wants_answer; /* there is a callback */
  bool has_aggregation_block;
  uint16_t category;
  uint16_t type;
  const corvid_dictionary_t* session_info;
  const corvid_dictionary_t* user_info;
  const corvid_dictionary_t* message; /* of corvid_session_send_message_with_dictionary */
  const corvid_dictionary_t* payload;
  const corvid_array_t* array; /* frameworks, or log data */
  const char* file_url;
} corvid_test_call_t;

typedef struct {
  size_t size;     /* sizeof(corvid_test_answer_t) */
  int error;       /* other than CORVID_OK: the call ends with it, and the rest is not looked at */
  bool unanswered; /* the callback is not called */
  bool withheld;   /* nothing comes, until the answer deadline or the end of the connection */
  const char* text;
  const char* reason; /* nobody took the message, for this reason; NULL: it was taken */
  const corvid_states_t* states;
  bool success;
  const corvid_error_t* failure;
} corvid_test_answer_t;

#define CORVID_TEST_ANSWER_INIT \
  { sizeof(corvid_test_answer_t), CORVID_OK, false, false, NULL, NULL, NULL, true, NULL }

/* NULL where there is no memory. */
CORVID_API corvid_test_sink_t* corvid_test_sink_create(void);
/* After the sessions that use it. NULL is fine. */
CORVID_API void corvid_test_sink_destroy(corvid_test_sink_t* sink);

/* The calls that have reached the sink so far, in order, those of remembered wishes included. */
CORVID_API size_t corvid_test_sink_call_count(const corvid_test_sink_t* sink);
/* Waits until there are so many calls; false where they have not come in that time. */
CORVID_API bool corvid_test_sink_await_calls(const corvid_test_sink_t* sink, size_t count,
                                             uint32_t timeout_ms);
/* `size` is sizeof(corvid_test_call_t). CORVID_ERROR_INVALID_ARGUMENT past the end. */
CORVID_API int corvid_test_sink_get_call(const corvid_test_sink_t* sink, size_t index,
                                         corvid_test_call_t* call, size_t size);
/* Forgets the calls. */
CORVID_API void corvid_test_sink_clear(corvid_test_sink_t* sink);

/* Answers the next `times` calls of the operation with this, after what was said for it before;
 * with 0 times, all for which nothing else is said. Copies the answer. */
CORVID_API int corvid_test_sink_answer(corvid_test_sink_t* sink, corvid_operation_t operation,
                                       size_t times, const corvid_test_answer_t* answer);
/* Calls the aggregation block of each session that is connected. */
CORVID_API int corvid_test_sink_deliver(corvid_test_sink_t* sink,
                                        const corvid_dictionary_t* message, /* or NULL */
                                        double timestamp, uint16_t category, uint16_t type,
                                        const corvid_dictionary_t* payload); /* or NULL */
/* Calls `states_changed` of each session that is connected. */
CORVID_API int corvid_test_sink_change_states(corvid_test_sink_t* sink,
                                              const corvid_states_t* states);
/* Whether connections can be made, as by a daemon that runs or does not. */
CORVID_API int corvid_test_sink_set_reachable(corvid_test_sink_t* sink, bool reachable);
/* Ends the connections that there are, as a daemon does that ends. */
CORVID_API int corvid_test_sink_disconnect(corvid_test_sink_t* sink);

/* States to answer with. NULL where there is no memory. */
CORVID_API corvid_states_t* corvid_states_create(void);
/* Why the session has no backends, or NULL. */
CORVID_API int corvid_states_set_reason(corvid_states_t* states, const char* reason);
/* Adds a backend; one whose state is "sending" or "held" reports. */
CORVID_API int corvid_states_add(corvid_states_t* states, const char* name, const char* state,
                                 const char* reason);

#ifdef __cplusplus
}
#endif

#endif /* CORVID_TESTING_H */
