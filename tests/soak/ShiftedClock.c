/* Loaded into a program before all others: the time of day is the system's and the offset that
 * stands in the file $CORVID_SOAK_CLOCK, in nanoseconds. Without the file it is the system's. */
#define _GNU_SOURCE
#include <dlfcn.h>
#include <fcntl.h>
#include <stdatomic.h>
#include <stdint.h>
#include <stdlib.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <sys/time.h>
#include <time.h>
#include <unistd.h>

static _Atomic int64_t* shared_offset;
/* The system's own, which asks no kernel. */
static int (*real_gettime)(clockid_t, struct timespec*);

__attribute__((constructor)) static void map_offset(void) {
  *(void**)&real_gettime = dlsym(RTLD_NEXT, "clock_gettime");
  const char* const path = getenv("CORVID_SOAK_CLOCK");
  const int file = path == NULL ? -1 : open(path, O_RDONLY | O_CLOEXEC);
  if (file < 0) return;
  void* const place = mmap(NULL, sizeof(int64_t), PROT_READ, MAP_SHARED, file, 0);
  close(file);
  if (place != MAP_FAILED) shared_offset = place;
}

int clock_gettime(clockid_t clock, struct timespec* result) {
  const int64_t second = 1000000000;
  const int failed = real_gettime == NULL ? (int)syscall(SYS_clock_gettime, clock, result)
                                          : real_gettime(clock, result);
  if (failed != 0) return failed;
  if (clock != CLOCK_REALTIME && clock != CLOCK_REALTIME_COARSE) return 0;
  const int64_t offset = shared_offset == NULL ? 0 : atomic_load(shared_offset);
  const int64_t shifted = result->tv_sec * second + result->tv_nsec + offset;
  result->tv_sec = (time_t)(shifted / second);
  result->tv_nsec = (long)(shifted % second);
  return 0;
}

time_t time(time_t* result) {
  struct timespec shifted = {0};
  clock_gettime(CLOCK_REALTIME, &shifted);
  if (result != NULL) *result = shifted.tv_sec;
  return shifted.tv_sec;
}

int gettimeofday(struct timeval* result, void* zone) {
  (void)zone;
  struct timespec shifted = {0};
  clock_gettime(CLOCK_REALTIME, &shifted);
  result->tv_sec = shifted.tv_sec;
  result->tv_usec = shifted.tv_nsec / 1000;
  return 0;
}
