/* A client in C against the installed library. */
#include <corvid/corvid.h>
#include <stdio.h>

int main(void) {
  corvid_session_t* session = NULL;
  corvid_dictionary_t* info = corvid_dictionary_create();
  if (corvid_dictionary_set_integer(info, kCorvidSessionInfoClientType, 5) != CORVID_OK) return 2;
  if (corvid_session_create(NULL, &session) != CORVID_OK) return 3;
  printf("%s %d\n", corvid_version(), corvid_session_connect(session));
  corvid_session_destroy(session);
  corvid_dictionary_destroy(info);
  return 0;
}
