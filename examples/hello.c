/* The shortest useful client: it says what it is, sends one event and leaves. */
#include <corvid/corvid.h>
#include <stdio.h>

int main(void) {
  corvid_options_t options = CORVID_OPTIONS_INIT;
  options.deadline_ms = 10000; /* so long at most do calls, and the end below, wait */
  corvid_session_t* session = NULL;
  int result = corvid_session_create(&options, &session);

  corvid_dictionary_t* info = corvid_dictionary_create();
  if (result == CORVID_OK) result = corvid_dictionary_set_integer(info, CORVID_KEY_CLIENT_TYPE, 5);
  if (result == CORVID_OK)
    result = corvid_session_set_session_info(session, info, NULL, NULL, false, NULL, NULL);
  if (result == CORVID_OK) result = corvid_session_start_config(session, NULL, NULL, NULL);

  corvid_dictionary_t* payload = corvid_dictionary_create();
  if (result == CORVID_OK) result = corvid_dictionary_set_string(payload, "colour", "blue");
  if (result == CORVID_OK)
    result = corvid_session_send_message(session, 3, 2, payload, NULL, NULL, NULL);

  corvid_dictionary_destroy(payload);
  corvid_dictionary_destroy(info);
  /* Lets the daemon answer. What waits in batches it posts then. */
  corvid_session_destroy(session);
  if (result != CORVID_OK) fprintf(stderr, "hello: %s\n", corvid_error_text(result));
  return result == CORVID_OK ? 0 : 1;
}
