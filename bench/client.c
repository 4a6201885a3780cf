/* bench/client ROOT [ROUNDS]: what libcorvid costs a process that uses it. In each round a new
 * process, a program in C that does nothing else, connects to the daemon below ROOT, describes
 * itself and sends an event. Prints medians: milliseconds from its start to the answer, and its
 * memory after that. */
#define _GNU_SOURCE
#include <corvid/corvid.h>
#include <semaphore.h>
#include <spawn.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

enum { mostRounds = 1000 };

extern char** environ;

static double milliseconds(void) {
  struct timespec now;
  clock_gettime(CLOCK_MONOTONIC, &now);
  return (double)now.tv_sec * 1e3 + (double)now.tv_nsec / 1e6;
}

/* In kilobytes; -1 where there is no such line. */
static double lineOf(const char* path, const char* name) {
  char line[256];
  double value = -1;
  FILE* const file = fopen(path, "r");
  while (file != NULL && fgets(line, sizeof line, file) != NULL)
    if (strncmp(line, name, strlen(name)) == 0) value = atof(line + strlen(name));
  if (file != NULL) fclose(file);
  return value;
}

static int result = CORVID_OK;

static void answered(void* context, int error, const char* text, size_t length) {
  (void)text, (void)length;
  result = error;
  sem_post(context);
}

/* One process: prints its time, resident and proportional memory. */
static int once(const char* root, double start) {
  sem_t done;
  sem_init(&done, 0, 0);
  setenv("CORVID_ROOT", root, 1);
  corvid_session_t* session = NULL;
  corvid_dictionary_t* const info = corvid_dictionary_create();
  corvid_dictionary_set_integer(info, "ClientType", 5);
  if (corvid_session_create(NULL, &session) != CORVID_OK ||
      corvid_session_set_session_info(session, info, NULL, NULL, false, NULL, NULL) != CORVID_OK ||
      corvid_session_send_message(session, 1, 1, info, answered, NULL, &done) != CORVID_OK)
    return 1;
  sem_wait(&done);
  const double end = milliseconds();
  if (result != CORVID_OK) return 1;
  printf("%f %f %f\n", end - start, lineOf("/proc/self/status", "VmRSS:"),
         lineOf("/proc/self/smaps_rollup", "Pss:"));
  corvid_session_destroy(session);
  corvid_dictionary_destroy(info);
  return 0;
}

static int compare(const void* a, const void* b) {
  const double first = *(const double*)a;
  const double second = *(const double*)b;
  return (first > second) - (first < second);
}

static double median(double* values, int count) {
  qsort(values, (size_t)count, sizeof *values, compare);
  return values[count / 2];
}

/* Starts a process and takes in what it prints. */
static int measure(char* root, double figures[3]) {
  int output[2];
  if (pipe(output) != 0) return 1;
  char start[32];
  snprintf(start, sizeof start, "%f", milliseconds());
  char* const arguments[] = {"client", "--once", root, start, NULL};
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, output[1], STDOUT_FILENO);
  pid_t child = 0;
  const int failed = posix_spawn(&child, "/proc/self/exe", &actions, NULL, arguments, environ);
  posix_spawn_file_actions_destroy(&actions);
  close(output[1]);
  FILE* const printed = fdopen(output[0], "r");
  const int found =
      failed ? 0 : fscanf(printed, "%lf %lf %lf", &figures[0], &figures[1], &figures[2]);
  fclose(printed);
  int status = 1;
  if (!failed) waitpid(child, &status, 0);
  return found == 3 && status == 0 ? 0 : 1;
}

int main(int count, char** arguments) {
  if (count == 4 && strcmp(arguments[1], "--once") == 0)
    return once(arguments[2], atof(arguments[3]));
  const int rounds = count == 3 ? atoi(arguments[2]) : 101;
  if (count < 2 || rounds < 1 || rounds > mostRounds) {
    fprintf(stderr, "usage: client ROOT [ROUNDS]\n");
    return 64;
  }
  static double time[mostRounds], resident[mostRounds], proportional[mostRounds];
  for (int i = 0; i < rounds; ++i) {
    double figures[3];
    if (measure(arguments[1], figures) != 0) {
      fprintf(stderr, "client: no answer from a daemon below %s\n", arguments[1]);
      return 1;
    }
    time[i] = figures[0], resident[i] = figures[1], proportional[i] = figures[2];
  }
  printf("%.2f ms to the first answer, %.0f kB resident, %.0f kB proportional, %d rounds\n",
         median(time, rounds), median(resident, rounds), median(proportional, rounds), rounds);
  return 0;
}
