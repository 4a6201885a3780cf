/* The client library of corvidd.
 *
 * A session describes the calling process once and then reports events; the daemon delivers them.
 * Every operation is asynchronous: it is accepted or refused at once, and what the daemon answers
 * comes to a callback.
 *
 * Results    A function that returns int gives CORVID_OK or one of the codes below. A call that is
 *            refused has no effect, save for what is remembered (below), and its callbacks are
 *            never called.
 * Threads    A session may be used from any thread. An object that holds values (dictionary, array)
 *            belongs to one thread at a time. Each session has one thread of its own, on which its
 *            callbacks run one after the other, never inside a function of this library, unless
 *            they are to run in corvid_session_dispatch. A callback may call the library; it should
 *            return soon, since nothing moves meanwhile.
 * Waiting    A function never waits longer than the session's deadline, and in a callback not at
 *            all; it waits only for room in the queue of calls, and for a connection.
 * Connection Made by the first call or corvid_session_connect. When it is lost, all calls under way
 *            end with CORVID_ERROR_CONNECTION_LOST and the `invalidated` handler is called. The
 *            next call connects again. Nothing connects by itself.
 * Remembered What the session wished is told to each new connection before anything else: the last
 *            session info with the last user info and, where it was started, the configuration.
 *            That holds for calls that were refused with CORVID_ERROR_NOT_CONNECTED, and for those
 *            that a lost connection ended, as for those that were answered; their callbacks are not
 *            called for it. `connected` tells that the daemon has taken it, `states_changed` what
 *            came of it. Nothing else is remembered: no event, no flush, no upload.
 * Signals    The session's thread takes no signals; the library raises none and changes none.
 * fork       A child process has no use of its parent's sessions: calls there are refused with
 *            CORVID_ERROR_FORKED, and destroying a session there does nothing. Create a new one.
 * Text       Is UTF-8. Keys, paths and roots end with a zero byte; texts that are handed to
 *            callbacks do so too, and have a length, since a text may contain zero bytes.
 * Ownership  The library copies what it is given. What a callback is given is valid until it
 *            returns. Borrowed values are valid until the object they come from changes or goes.
 */
#ifndef CORVID_CORVID_H
#define CORVID_CORVID_H

#include <stdbool.h>
#include <stddef.h>
#include <stdint.h>

#define CORVID_API __attribute__((visibility("default")))

#ifdef __cplusplus
extern "C" {
#endif

#define CORVID_VERSION_MAJOR 0
#define CORVID_VERSION_MINOR 1
#define CORVID_VERSION_PATCH 0

/* The version of the library in use, such as "0.1.0". */
CORVID_API const char* corvid_version(void);

/* Result codes. */
enum {
  CORVID_OK = 0,
  CORVID_ERROR_INVALID_ARGUMENT = 1, /* a missing object, or a date that is no number */
  CORVID_ERROR_INVALID_TEXT = 2,     /* a text or key that is not UTF-8 */
  CORVID_ERROR_TOO_DEEP = 3,         /* values nested deeper than the daemon takes */
  CORVID_ERROR_TOO_LARGE = 4,        /* more than travels in one message, or infos or a path of
                                        more than the daemon takes */
  CORVID_ERROR_WRONG_TYPE = 5,       /* the value is of another type */
  CORVID_ERROR_QUEUE_FULL = 6,       /* no room for the call before the deadline */
  CORVID_ERROR_NOT_CONNECTED = 7,    /* the daemon cannot be reached; a later call tries again */
  CORVID_ERROR_CONNECTION_LOST = 8,  /* the connection broke while the call was under way */
  CORVID_ERROR_CLOSED = 9,           /* the session was destroyed */
  CORVID_ERROR_NOT_SUPPORTED = 10,   /* the daemon does not know the operation */
  CORVID_ERROR_BAD_REPLY = 11,       /* the daemon's answer cannot be understood */
  CORVID_ERROR_FORKED = 12,          /* the session belongs to the parent process */
  CORVID_ERROR_NO_MEMORY = 13,
  CORVID_ERROR_SYSTEM = 14,   /* the system has no thread or descriptor left */
  CORVID_ERROR_TIMED_OUT = 15 /* not answered before the answer deadline; it may still have been
                                 taken */
};

/* A short description in English; never NULL. */
CORVID_API const char* corvid_error_text(int code);

/* Keys of the session info. Each key stands here twice: as a literal, for tables that the compiler
 * fills, and as a pointer, for languages that have no macros. */
#define CORVID_KEY_CLIENT_TYPE "ClientType"
#define CORVID_KEY_CLIENT_VERSION "ClientVersion"
#define CORVID_KEY_SESSION_ID "SessionID"
#define CORVID_KEY_REQUIRE_USER_INFO "RequireUserInfo"
#define CORVID_KEY_BATCH_EVENT "BatchEvent"
CORVID_API extern const char* const kCorvidSessionInfoClientType;
CORVID_API extern const char* const kCorvidSessionInfoClientVersion;
CORVID_API extern const char* const kCorvidSessionInfoSessionID;
CORVID_API extern const char* const kCorvidSessionInfoRequireUserInfo;
CORVID_API extern const char* const kCorvidSessionInfoBatchEvent;
/* Keys of the user info. */
#define CORVID_KEY_CLIENT_NAME "_clientName"
#define CORVID_KEY_SERVICE_NAME "_serviceName"
CORVID_API extern const char* const kCorvidUserInfoClientName;
CORVID_API extern const char* const kCorvidUserInfoServiceName;
/* Keys of a message dictionary. */
#define CORVID_KEY_CATEGORY "Category"
#define CORVID_KEY_TYPE "Type"
#define CORVID_KEY_PAYLOAD "Payload"
#define CORVID_KEY_FLAG "Flag"
CORVID_API extern const char* const kCorvidMessageParametersCategory;
CORVID_API extern const char* const kCorvidMessageParametersType;
CORVID_API extern const char* const kCorvidMessageParametersPayload;
CORVID_API extern const char* const kCorvidMessageParametersFlag;
/* Names of backends, as in the array of reporting states. */
#define CORVID_BACKEND_HTTP_POST "httpPost"
#define CORVID_BACKEND_HTTP_POST_2 "httpPost2"
#define CORVID_BACKEND_DASHBOARD "dashboard"
#define CORVID_BACKEND_UPLOAD_SERVER "uploadServer"
#define CORVID_BACKEND_METRIX "metrix"
#define CORVID_BACKEND_WATTBOOK "wattbook"
CORVID_API extern const char* const kCorvidBackendHTTPPost;
CORVID_API extern const char* const kCorvidBackendHTTPPost2;
CORVID_API extern const char* const kCorvidBackendDashboard;
CORVID_API extern const char* const kCorvidBackendUploadServer;
CORVID_API extern const char* const kCorvidBackendMetrix;
CORVID_API extern const char* const kCorvidBackendWattbook;
/* The domain of the daemon's error objects. */
#define CORVID_DAEMON_ERROR_DOMAIN "com.halcyon.corvid.error"
CORVID_API extern const char* const kCorvidErrorDomain;

/* ---- Values ------------------------------------------------------------------------------- */

typedef struct corvid_dictionary corvid_dictionary_t; /* keys to values, in order of insertion */
typedef struct corvid_array corvid_array_t;
typedef struct corvid_value corvid_value_t; /* a value inside one of them; always borrowed */

typedef enum {
  CORVID_TYPE_NULL = 0,
  CORVID_TYPE_BOOLEAN = 1,
  CORVID_TYPE_INTEGER = 2,
  CORVID_TYPE_REAL = 3,
  CORVID_TYPE_DATE = 4,
  CORVID_TYPE_STRING = 5,
  CORVID_TYPE_DATA = 6,
  CORVID_TYPE_ARRAY = 7,
  CORVID_TYPE_DICTIONARY = 8
} corvid_type_t;

/* NULL where there is no memory. */
CORVID_API corvid_dictionary_t* corvid_dictionary_create(void);
CORVID_API corvid_dictionary_t* corvid_dictionary_copy(const corvid_dictionary_t* dictionary);
CORVID_API void corvid_dictionary_destroy(corvid_dictionary_t* dictionary); /* NULL is fine */

/* Adds an entry, or replaces the value of an existing key. A date is in seconds since 1970-01-01
 * 00:00 UTC. */
CORVID_API int corvid_dictionary_set_null(corvid_dictionary_t* dictionary, const char* key);
CORVID_API int corvid_dictionary_set_boolean(corvid_dictionary_t* dictionary, const char* key,
                                             bool value);
CORVID_API int corvid_dictionary_set_integer(corvid_dictionary_t* dictionary, const char* key,
                                             int64_t value);
CORVID_API int corvid_dictionary_set_real(corvid_dictionary_t* dictionary, const char* key,
                                          double value);
CORVID_API int corvid_dictionary_set_date(corvid_dictionary_t* dictionary, const char* key,
                                          double seconds);
CORVID_API int corvid_dictionary_set_string(corvid_dictionary_t* dictionary, const char* key,
                                            const char* text);
CORVID_API int corvid_dictionary_set_text(corvid_dictionary_t* dictionary, const char* key,
                                          const char* text, size_t length);
CORVID_API int corvid_dictionary_set_data(corvid_dictionary_t* dictionary, const char* key,
                                          const void* bytes, size_t length);
CORVID_API int corvid_dictionary_set_array(corvid_dictionary_t* dictionary, const char* key,
                                           const corvid_array_t* value);
CORVID_API int corvid_dictionary_set_dictionary(corvid_dictionary_t* dictionary, const char* key,
                                                const corvid_dictionary_t* value);
CORVID_API int corvid_dictionary_set_value(corvid_dictionary_t* dictionary, const char* key,
                                           const corvid_value_t* value);
/* Nothing happens where the key is not there. */
CORVID_API void corvid_dictionary_remove(corvid_dictionary_t* dictionary, const char* key);

CORVID_API size_t corvid_dictionary_count(const corvid_dictionary_t* dictionary);
/* NULL where the key is not there. */
CORVID_API const corvid_value_t* corvid_dictionary_get(const corvid_dictionary_t* dictionary,
                                                       const char* key);
/* The entry at `index`, NULL past the end. `key` and `key_length` may be NULL. */
CORVID_API const corvid_value_t* corvid_dictionary_entry(const corvid_dictionary_t* dictionary,
                                                         size_t index, const char** key,
                                                         size_t* key_length);

CORVID_API corvid_array_t* corvid_array_create(void);
CORVID_API corvid_array_t* corvid_array_copy(const corvid_array_t* array);
CORVID_API void corvid_array_destroy(corvid_array_t* array); /* NULL is fine */

CORVID_API int corvid_array_append_null(corvid_array_t* array);
CORVID_API int corvid_array_append_boolean(corvid_array_t* array, bool value);
CORVID_API int corvid_array_append_integer(corvid_array_t* array, int64_t value);
CORVID_API int corvid_array_append_real(corvid_array_t* array, double value);
CORVID_API int corvid_array_append_date(corvid_array_t* array, double seconds);
CORVID_API int corvid_array_append_string(corvid_array_t* array, const char* text);
CORVID_API int corvid_array_append_text(corvid_array_t* array, const char* text, size_t length);
CORVID_API int corvid_array_append_data(corvid_array_t* array, const void* bytes, size_t length);
CORVID_API int corvid_array_append_array(corvid_array_t* array, const corvid_array_t* value);
CORVID_API int corvid_array_append_dictionary(corvid_array_t* array,
                                              const corvid_dictionary_t* value);
CORVID_API int corvid_array_append_value(corvid_array_t* array, const corvid_value_t* value);

CORVID_API size_t corvid_array_count(const corvid_array_t* array);
/* NULL past the end. */
CORVID_API const corvid_value_t* corvid_array_get(const corvid_array_t* array, size_t index);

/* The type of NULL is CORVID_TYPE_NULL. */
CORVID_API corvid_type_t corvid_value_type(const corvid_value_t* value);
/* CORVID_ERROR_WRONG_TYPE, and `result` untouched, where the value is of another type. */
CORVID_API int corvid_value_get_boolean(const corvid_value_t* value, bool* result);
CORVID_API int corvid_value_get_integer(const corvid_value_t* value, int64_t* result);
CORVID_API int corvid_value_get_real(const corvid_value_t* value, double* result);
CORVID_API int corvid_value_get_date(const corvid_value_t* value, double* seconds);
/* NULL where the value is of another type. `length` may be NULL. */
CORVID_API const char* corvid_value_string(const corvid_value_t* value, size_t* length);
CORVID_API const void* corvid_value_data(const corvid_value_t* value, size_t* length);
CORVID_API const corvid_array_t* corvid_value_array(const corvid_value_t* value);
CORVID_API const corvid_dictionary_t* corvid_value_dictionary(const corvid_value_t* value);

/* ---- Reasons ------------------------------------------------------------------------------ */

/* Whatever does not report has a reason, a word such as "noConsent" from the closed list of
 * docs/reasons.md, where also stands what to do. "reporting" keeps nothing back. */

/* What is the case, a sentence in English; NULL for a word that this version does not know. */
CORVID_API const char* corvid_reason_text(const char* reason);

/* The states of a session: its backends, what each does and why. What a callback is given is
 * borrowed; a copy belongs to the caller. An object belongs to one thread at a time. */
typedef struct corvid_states corvid_states_t;

/* Why the session has no backends; NULL where it has. */
CORVID_API const char* corvid_states_reason(const corvid_states_t* states);
CORVID_API size_t corvid_states_count(const corvid_states_t* states);
/* Of the backend at `index`, in the order of their names; NULL past the end. The state is one of
 * "waiting", "disabled", "sending" and "held". */
CORVID_API const char* corvid_states_backend_name(const corvid_states_t* states, size_t index);
CORVID_API const char* corvid_states_backend_state(const corvid_states_t* states, size_t index);
CORVID_API const char* corvid_states_backend_reason(const corvid_states_t* states, size_t index);
/* The names of those that report, as corvid_states_callback_t gets them; NULL where that is. */
CORVID_API const corvid_array_t* corvid_states_reporting(const corvid_states_t* states);

/* NULL where there is no memory. */
CORVID_API corvid_states_t* corvid_states_copy(const corvid_states_t* states);
CORVID_API void corvid_states_destroy(corvid_states_t* states); /* NULL is fine */

/* ---- Sessions ----------------------------------------------------------------------------- */

typedef struct corvid_session corvid_session_t;

/* How an accepted call ended. */
typedef enum {
  CORVID_OUTCOME_ANSWERED = 0,   /* the callback was called with the answer */
  CORVID_OUTCOME_UNANSWERED = 1, /* the daemon gives no answer; the callback was not called */
  CORVID_OUTCOME_DONE = 2,       /* there was no callback; the daemon has finished with the call */
  CORVID_OUTCOME_FAILED = 3      /* the callback, where there is one, was called with an error */
} corvid_outcome_t;

/* An error object of the daemon. */
typedef struct {
  const char* domain;
  int64_t code;
  const char* description;
} corvid_error_t;

/* Callbacks of calls. Where `error` is not CORVID_OK, everything behind it is absent: NULL, 0 or
 * false. A callback is called once, or, where the daemon gives no answer, never. */
/* `text` is NULL where the answer is nothing. */
typedef void (*corvid_text_callback_t)(void* context, int error, const char* text, size_t length);
/* `states` is NULL where the session has no backends. */
typedef void (*corvid_states_callback_t)(void* context, int error, const corvid_array_t* states);
/* `failure` is NULL where there is none; it may come with a text. */
typedef void (*corvid_flush_callback_t)(void* context, int error, const char* text, size_t length,
                                        const corvid_error_t* failure);
typedef void (*corvid_success_callback_t)(void* context, int error, bool success,
                                          const corvid_error_t* failure);
/* Called once for every accepted call, after its callback; nothing of the call is used after that,
 * so this is where a context can be freed. */
typedef void (*corvid_finished_callback_t)(void* context, corvid_outcome_t outcome);

/* What an answer tells besides the arguments of its callback. */
typedef struct corvid_answer corvid_answer_t;

/* The answer that the callback running on this thread was called with, valid until that returns.
 * NULL outside of a callback of a call, and where the call ended with an error. */
CORVID_API const corvid_answer_t* corvid_current_answer(void);

/* What became of a message, a finish or a single message when the daemon answered. */
typedef enum {
  CORVID_DISPOSITION_UNKNOWN = 0, /* another call, or a daemon that does not tell */
  CORVID_DISPOSITION_TAKEN = 1,   /* a backend sends it, holds it or has delivered it */
  CORVID_DISPOSITION_DROPPED = 2  /* nobody took it; the reason says why */
} corvid_disposition_t;

/* Of NULL: CORVID_DISPOSITION_UNKNOWN. */
CORVID_API corvid_disposition_t corvid_answer_disposition(const corvid_answer_t* answer);
/* Why nobody took the message: "noSessionInfo", "notConfigured", "noConsent" and so on. NULL where
 * somebody did, or where that is not known. */
CORVID_API const char* corvid_answer_reason(const corvid_answer_t* answer);
/* The states with their reasons, of corvid_session_start_config and corvid_session_fetch_states.
 * NULL of other calls, and where the daemon does not tell. */
CORVID_API const corvid_states_t* corvid_answer_states(const corvid_answer_t* answer);

/* The longest that a function of a session waits, unless the options say otherwise. */
#define CORVID_DEFAULT_DEADLINE_MS 100

typedef struct corvid_test_sink corvid_test_sink_t;

typedef struct {
  size_t size;      /* sizeof(corvid_options_t) */
  const char* root; /* the folder that everything hangs below; NULL: $CORVID_ROOT, which programs
                       with more rights than their user's do not follow, or "/" */
  uint32_t deadline_ms; /* 0: never wait */
  void* context;        /* for the handlers below, each of which may be NULL */
  /* The aggregation block. A delivery with everything absent or zero tells it to shut down. */
  void (*message)(void* context, const corvid_dictionary_t* message, double timestamp,
                  uint16_t category, uint16_t type, const corvid_dictionary_t* payload);
  /* The connection is lost. */
  void (*invalidated)(void* context);
  /* The connection is there again and the daemon has taken what was sent again. */
  void (*reconnected)(void* context);
  /* The last callback of the session; none comes after it. */
  void (*released)(void* context);
  /* A connection is there and the daemon has taken what was remembered. Called for each connection,
   * the first included; after that, for every other than the first, `reconnected`. */
  void (*connected)(void* context);
  /* The session's states or their reasons are others than the daemon told last, in an answer or
   * here: the user info, a parent in a chain, a server's answer or an operator changed them. What
   * changes quickly is told once, as it is in the end. With this handler the session asks the
   * daemon to tell it. */
  void (*states_changed)(void* context, const corvid_states_t* states);
  /* The longest from the acceptance of a call to its answer; 0: none. A call that is not answered
   * by then ends with CORVID_ERROR_TIMED_OUT and the connection goes on; a later answer is dropped.
   * Answers to flushes and uploads wait for servers. */
  uint32_t answer_deadline_ms;
  /* Callbacks wait for corvid_session_dispatch instead of running on the session's own thread. */
  bool dispatch;
  /* Answers in place of a daemon; see corvid/testing.h. NULL: none. Must live as long as the
   * session. */
  corvid_test_sink_t* test_sink;
} corvid_options_t;

#define CORVID_OPTIONS_INIT                                                                   \
  {                                                                                           \
    sizeof(corvid_options_t), NULL, CORVID_DEFAULT_DEADLINE_MS, NULL, NULL, NULL, NULL, NULL, \
        NULL, NULL, 0, false, NULL                                                            \
  }

/* `options` may be NULL. Does not connect. Options that were written for an older version, and are
 * shorter, are fine. */
CORVID_API int corvid_session_create(const corvid_options_t* options, corvid_session_t** session);

/* Gives calls that were accepted until the deadline to be answered, then closes the connection;
 * what is left ends with CORVID_ERROR_CLOSED. No callback runs after the function has returned. In
 * a callback of the same session it does not wait: what is left ends after the callback has
 * returned, and `released` tells when all is over. Where callbacks wait for
 * corvid_session_dispatch, those that are left run here, on the caller's thread; in a callback,
 * before the corvid_session_dispatch under way returns. NULL is fine. */
CORVID_API void corvid_session_destroy(corvid_session_t* session);

/* Connects, where there is no connection. */
CORVID_API int corvid_session_connect(corvid_session_t* session);

/* For event loops. With the option `dispatch` the descriptor is readable while callbacks wait; poll
 * it, do nothing else with it, and call corvid_session_dispatch. It lives as long as the session.
 * -1 without that option. */
CORVID_API int corvid_session_get_fd(const corvid_session_t* session);
/* Runs the callbacks that wait, on this thread, without waiting itself; what they bring about waits
 * for the next time. By one thread at a time: while one is at it, in a callback too, it does
 * nothing. Where the host does not come to it, 4,096 callbacks or 8 MiB wait at most, and some that
 * were under way; past it nothing more is taken from the daemon, and calls fill the queue until
 * they are refused with CORVID_ERROR_QUEUE_FULL. CORVID_ERROR_INVALID_ARGUMENT without the option
 * `dispatch`. */
CORVID_API int corvid_session_dispatch(corvid_session_t* session);

/* The operations. Calls of one session reach the daemon in the order in which they are made. Any
 * callback may be NULL: without one the daemon is told that no answer is wanted. Session info, user
 * info and frameworks may take 256 KiB together. */
CORVID_API int corvid_session_set_session_info(corvid_session_t* session,
                                               const corvid_dictionary_t* session_info,
                                               const corvid_dictionary_t* user_info, /* or NULL */
                                               const corvid_array_t* frameworks,     /* or NULL */
                                               bool has_aggregation_block,
                                               corvid_finished_callback_t finished, void* context);
CORVID_API int corvid_session_start_config(corvid_session_t* session,
                                           corvid_states_callback_t callback,
                                           corvid_finished_callback_t finished, void* context);
CORVID_API int corvid_session_fetch_states(corvid_session_t* session,
                                           const corvid_dictionary_t* user_info, /* or NULL */
                                           corvid_states_callback_t callback,
                                           corvid_finished_callback_t finished, void* context);
CORVID_API int corvid_session_fetch_display_url(corvid_session_t* session,
                                                corvid_text_callback_t callback,
                                                corvid_finished_callback_t finished, void* context);
CORVID_API int corvid_session_send_message(corvid_session_t* session, uint16_t category,
                                           uint16_t type,
                                           const corvid_dictionary_t* payload, /* or NULL */
                                           corvid_text_callback_t callback,
                                           corvid_finished_callback_t finished, void* context);
CORVID_API int corvid_session_send_message_with_dictionary(corvid_session_t* session,
                                                           const corvid_dictionary_t* message,
                                                           corvid_text_callback_t callback,
                                                           corvid_finished_callback_t finished,
                                                           void* context);
CORVID_API int corvid_session_flush(corvid_session_t* session, corvid_flush_callback_t callback,
                                    corvid_finished_callback_t finished, void* context);
CORVID_API int corvid_session_finish(corvid_session_t* session, corvid_text_callback_t callback,
                                     corvid_finished_callback_t finished, void* context);
/* `path` may be relative to the working folder. The file is opened before the function returns,
 * with the rights of this process and following no link in the last part of the path; the daemon
 * reads what was opened, not what stands there later. What is no regular file, or may not be read,
 * is refused by the daemon. The daemon has the file removed, by this process, where the server
 * confirmed the upload. CORVID_ERROR_TOO_LARGE past 256 MiB. */
CORVID_API int corvid_session_upload_file(corvid_session_t* session, const char* path,
                                          corvid_success_callback_t callback,
                                          corvid_finished_callback_t finished, void* context);
CORVID_API int corvid_session_upload_log_data(corvid_session_t* session,
                                              const corvid_array_t* log_data,
                                              corvid_success_callback_t callback,
                                              corvid_finished_callback_t finished, void* context);
/* One message outside the session's configuration. */
CORVID_API int corvid_session_send_single_message(
    corvid_session_t* session, const corvid_dictionary_t* session_info,
    const corvid_dictionary_t* user_info,                                 /* or NULL */
    uint16_t category, uint16_t type, const corvid_dictionary_t* payload, /* or NULL */
    corvid_text_callback_t callback, corvid_finished_callback_t finished, void* context);

#ifdef __cplusplus
}
#endif

#include <corvid/testing.h>

#endif /* CORVID_CORVID_H */
