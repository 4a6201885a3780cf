/* A client with one thread of its own and an event loop: callbacks run in corvid_session_dispatch,
   and no call waits. Each tick sends an event, the last one a flush, whose answer ends the loop. A
   daemon that comes later than the client is found by a later tick. */
#define _POSIX_C_SOURCE 200809L /* CLOCK_MONOTONIC */
#include <corvid/corvid.h>
#include <stdint.h>
#include <stdio.h>
#include <sys/epoll.h>
#include <sys/timerfd.h>
#include <unistd.h>

enum { events_to_send = 3, most_ticks = 300 };

struct client {
  corvid_session_t* session;
  int sent;
  bool flushing;
  bool flushed;
};

static void on_connected(void* context) {
  (void)context;
  printf("connected\n");
}

static void on_flush(void* context, int error, const char* text, size_t length,
                     const corvid_error_t* failure) {
  (void)text;
  (void)length;
  struct client* client = context; /* no lock: this is the loop's thread */
  client->flushed = error == CORVID_OK && failure == NULL;
  client->flushing = false; /* where it failed, the next tick tries again */
}

/* What is refused for want of a daemon is remembered, and told to the one that comes. */
static int describe(corvid_session_t* session) {
  corvid_dictionary_t* info = corvid_dictionary_create();
  int result = corvid_dictionary_set_integer(info, CORVID_KEY_CLIENT_TYPE, 8);
  if (result == CORVID_OK)
    result = corvid_session_set_session_info(session, info, NULL, NULL, false, NULL, NULL);
  corvid_dictionary_destroy(info);
  if (result == CORVID_OK || result == CORVID_ERROR_NOT_CONNECTED)
    result = corvid_session_start_config(session, NULL, NULL, NULL);
  return result == CORVID_ERROR_NOT_CONNECTED ? CORVID_OK : result;
}

static int send_event(struct client* client) {
  corvid_dictionary_t* payload = corvid_dictionary_create();
  int result = corvid_dictionary_set_integer(payload, "tick", client->sent);
  if (result == CORVID_OK)
    result = corvid_session_send_message(client->session, 7, 2, payload, NULL, NULL, NULL);
  corvid_dictionary_destroy(payload);
  if (result == CORVID_OK) ++client->sent;
  return result;
}

static void on_tick(struct client* client) {
  int result = CORVID_OK;
  if (client->sent < events_to_send) {
    result = send_event(client);
  } else if (!client->flushing) {
    result = corvid_session_flush(client->session, on_flush, NULL, client);
    client->flushing = result == CORVID_OK;
  }
  if (result != CORVID_OK) printf("later: %s\n", corvid_error_text(result));
}

static int loop(struct client* client, int epoll, int timer) {
  for (int ticks = 0; !client->flushed && ticks < most_ticks;) {
    struct epoll_event ready;
    if (epoll_wait(epoll, &ready, 1, -1) != 1) continue; /* a signal */
    uint64_t expired = 0;
    if (ready.data.fd != timer) {
      corvid_session_dispatch(client->session);
    } else if (read(timer, &expired, sizeof expired) == sizeof expired) {
      ++ticks;
      on_tick(client);
    }
  }
  return client->flushed ? 0 : 1;
}

int main(void) {
  setvbuf(stdout, NULL, _IOLBF, 0); /* each line at once, also to a pipe */
  struct client client = {NULL, 0, false, false};
  corvid_options_t options = CORVID_OPTIONS_INIT;
  options.deadline_ms = 0;
  options.dispatch = true;
  options.connected = on_connected;
  int result = corvid_session_create(&options, &client.session);
  if (result == CORVID_OK) result = describe(client.session);

  const int epoll = epoll_create1(EPOLL_CLOEXEC);
  const int timer = timerfd_create(CLOCK_MONOTONIC, TFD_CLOEXEC | TFD_NONBLOCK);
  const struct itimerspec period = {{0, 100000000}, {0, 100000000}};
  struct epoll_event of_session = {.events = EPOLLIN};
  of_session.data.fd = corvid_session_get_fd(client.session);
  struct epoll_event of_timer = {.events = EPOLLIN};
  of_timer.data.fd = timer;
  int status = 1;
  if (result != CORVID_OK)
    fprintf(stderr, "event_loop: %s\n", corvid_error_text(result));
  else if (epoll_ctl(epoll, EPOLL_CTL_ADD, of_session.data.fd, &of_session) != 0 ||
           epoll_ctl(epoll, EPOLL_CTL_ADD, timer, &of_timer) != 0 ||
           timerfd_settime(timer, 0, &period, NULL) != 0)
    perror("event_loop");
  else
    status = loop(&client, epoll, timer);
  corvid_session_destroy(client.session);
  close(timer);
  close(epoll);
  return status;
}
