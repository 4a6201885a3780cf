/* A client that hears what becomes of its calls. Callbacks run on the session's own thread; the
   main thread waits until each call has ended. */
#define _POSIX_C_SOURCE 200809L /* sem_timedwait */
#include <corvid/corvid.h>
#include <semaphore.h>
#include <stdio.h>
#include <time.h>

static sem_t ended; /* counts calls that have ended */
static bool failed; /* one of them with an error */

/* Called once for every accepted call, also where the daemon gives no answer to it. */
static void on_finished(void* context, corvid_outcome_t outcome) {
  if (outcome == CORVID_OUTCOME_UNANSWERED) printf("%s: unanswered\n", (const char*)context);
  if (outcome == CORVID_OUTCOME_FAILED) failed = true;
  sem_post(&ended);
}

static void on_states(void* context, int error, const corvid_array_t* reporting) {
  (void)reporting; /* names alone; the answer has the reasons too */
  if (error != CORVID_OK) {
    printf("%s: %s\n", (const char*)context, corvid_error_text(error));
    return;
  }
  const corvid_states_t* states = corvid_answer_states(corvid_current_answer());
  const char* reason = corvid_states_reason(states);
  if (reason != NULL) printf("no backends: %s (%s)\n", reason, corvid_reason_text(reason));
  for (size_t i = 0; i < corvid_states_count(states); ++i)
    printf("%s: %s, %s\n", corvid_states_backend_name(states, i),
           corvid_states_backend_state(states, i), corvid_states_backend_reason(states, i));
}

static void on_text(void* context, int error, const char* text, size_t length) {
  (void)text; /* for people who look for faults: what was posted, if anything was */
  (void)length;
  const corvid_answer_t* answer = corvid_current_answer();
  if (error != CORVID_OK)
    printf("%s: %s\n", (const char*)context, corvid_error_text(error));
  else if (corvid_answer_disposition(answer) == CORVID_DISPOSITION_DROPPED)
    printf("%s: dropped, %s\n", (const char*)context, corvid_answer_reason(answer));
  else
    printf("%s: taken\n", (const char*)context);
}

static void on_flush(void* context, int error, const char* text, size_t length,
                     const corvid_error_t* failure) {
  (void)text;
  (void)length;
  printf("%s: %s\n", (const char*)context,
         error != CORVID_OK ? corvid_error_text(error)
         : failure != NULL  ? failure->description
                            : "done");
}

static bool await_calls(int calls) {
  struct timespec until;
  clock_gettime(CLOCK_REALTIME, &until);
  until.tv_sec += 30;
  while (calls > 0 && sem_timedwait(&ended, &until) == 0) --calls;
  return calls == 0;
}

static int describe(corvid_session_t* session) {
  corvid_dictionary_t* info = corvid_dictionary_create();
  corvid_dictionary_t* user = corvid_dictionary_create();
  int result = corvid_dictionary_set_integer(info, CORVID_KEY_CLIENT_TYPE, 5);
  if (result == CORVID_OK)
    result = corvid_dictionary_set_boolean(info, CORVID_KEY_REQUIRE_USER_INFO, true);
  if (result == CORVID_OK)
    result = corvid_dictionary_set_string(user, CORVID_KEY_CLIENT_NAME, "Player");
  if (result == CORVID_OK)
    result = corvid_dictionary_set_string(user, CORVID_KEY_SERVICE_NAME, "Evening Film");
  if (result == CORVID_OK)
    result = corvid_session_set_session_info(session, info, user, NULL, false, NULL, NULL);
  corvid_dictionary_destroy(user);
  corvid_dictionary_destroy(info);
  return result;
}

static int run(corvid_session_t* session) {
  int result = describe(session);
  if (result == CORVID_OK)
    result = corvid_session_start_config(session, on_states, on_finished, "start");
  corvid_dictionary_t* payload = corvid_dictionary_create();
  if (result == CORVID_OK) result = corvid_dictionary_set_string(payload, "action", "play");
  if (result == CORVID_OK) result = corvid_dictionary_set_real(payload, "position", 12.5);
  if (result == CORVID_OK)
    result = corvid_session_send_message(session, 7, 2, payload, on_text, on_finished, "event");
  corvid_dictionary_destroy(payload);
  if (result == CORVID_OK) result = corvid_session_flush(session, on_flush, on_finished, "flush");
  if (result == CORVID_OK && !await_calls(3)) result = CORVID_ERROR_TIMED_OUT;
  return result;
}

int main(void) {
  corvid_session_t* session = NULL;
  if (sem_init(&ended, 0, 0) != 0) return 1;
  int result = corvid_session_create(NULL, &session);
  if (result == CORVID_OK) result = run(session);
  corvid_session_destroy(session);
  if (result != CORVID_OK) fprintf(stderr, "client: %s\n", corvid_error_text(result));
  return result == CORVID_OK && !failed ? 0 : 1;
}
