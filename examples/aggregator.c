/* A client that sees the messages of a whole chain: its own, and those of every session below it
   with the same client and service name. It prints a line for each, until it is told that somebody
   above it aggregates instead, or gets SIGINT or SIGTERM. */
#define _POSIX_C_SOURCE 200809L /* sigtimedwait, kill */
#include <corvid/corvid.h>
#include <inttypes.h>
#include <signal.h>
#include <stdio.h>
#include <time.h>
#include <unistd.h>

/* Of a value that need not be there. */
static int64_t integer_at(const corvid_dictionary_t* dictionary, const char* key) {
  int64_t number = -1;
  (void)corvid_value_get_integer(corvid_dictionary_get(dictionary, key), &number);
  return number;
}

/* The aggregation block. `message` is the sender's session info; `payload` is its event's, with its
   user info over it, and NULL where the event has none. All of it is borrowed. */
static void on_message(void* context, const corvid_dictionary_t* message, double timestamp,
                       uint16_t category, uint16_t type, const corvid_dictionary_t* payload) {
  (void)context;
  if (message == NULL) { /* the signal to shut down */
    kill(getpid(), SIGTERM);
    return;
  }
  printf("%.0f client type %" PRId64 ": %" PRIu16 " %" PRIu16, timestamp,
         integer_at(message, CORVID_KEY_CLIENT_TYPE), category, type);
  for (size_t i = 0; i < corvid_dictionary_count(payload); ++i) {
    const char* key = NULL;
    const corvid_value_t* value = corvid_dictionary_entry(payload, i, &key, NULL);
    const char* text = corvid_value_string(value, NULL);
    printf(" %s=%s", key, text != NULL ? text : "...");
  }
  printf("\n");
}

/* What is refused for want of a daemon is remembered, and told to the one that comes. */
static int start(corvid_session_t* session) {
  corvid_dictionary_t* info = corvid_dictionary_create();
  corvid_dictionary_t* user = corvid_dictionary_create();
  int result = corvid_dictionary_set_integer(info, CORVID_KEY_CLIENT_TYPE, 6);
  if (result == CORVID_OK) /* places in chains are for clients with user info */
    result = corvid_dictionary_set_boolean(info, CORVID_KEY_REQUIRE_USER_INFO, true);
  if (result == CORVID_OK)
    result = corvid_dictionary_set_string(user, CORVID_KEY_CLIENT_NAME, "Player");
  if (result == CORVID_OK)
    result = corvid_dictionary_set_string(user, CORVID_KEY_SERVICE_NAME, "Evening Film");
  if (result == CORVID_OK) /* true: the daemon is to deliver */
    result = corvid_session_set_session_info(session, info, user, NULL, true, NULL, NULL);
  if (result == CORVID_OK || result == CORVID_ERROR_NOT_CONNECTED)
    result = corvid_session_start_config(session, NULL, NULL, NULL);
  corvid_dictionary_destroy(user);
  corvid_dictionary_destroy(info);
  return result == CORVID_ERROR_NOT_CONNECTED ? CORVID_OK : result;
}

int main(void) {
  setvbuf(stdout, NULL, _IOLBF, 0); /* each line at once, also to a pipe */
  sigset_t ending;                  /* blocked in every thread, and taken by sigtimedwait */
  sigemptyset(&ending);
  sigaddset(&ending, SIGINT);
  sigaddset(&ending, SIGTERM);
  sigprocmask(SIG_BLOCK, &ending, NULL);

  corvid_options_t options = CORVID_OPTIONS_INIT;
  options.message = on_message;
  corvid_session_t* session = NULL;
  int result = corvid_session_create(&options, &session);
  if (result == CORVID_OK) result = start(session);
  if (result != CORVID_OK) fprintf(stderr, "aggregator: %s\n", corvid_error_text(result));

  /* It makes no calls that would connect again where the daemon was restarted. */
  const struct timespec second = {1, 0};
  while (result == CORVID_OK && sigtimedwait(&ending, NULL, &second) < 0)
    (void)corvid_session_connect(session);
  corvid_session_destroy(session);
  return result == CORVID_OK ? 0 : 1;
}
