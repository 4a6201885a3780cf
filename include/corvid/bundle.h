/*
 * corvid/bundle.h - how a code bundle publishes classes to corvidd.
 *
 * A bundle is a shared library at /usr/lib/corvid/PerformanceBundle.so that defines one symbol,
 * `corvid_bundle`, with a table of its classes. The daemon looks a class up by its name, creates
 * objects of it and asks them to perform operations, which have names too. Today it uses
 *
 *   class "MetrixAdaptor", operation "sendMessageWithMethod:respCode:dict:"
 *
 * Threads   One object is used by one thread at a time, different objects by any threads at once.
 * Lifetime  A loaded bundle is never unloaded. Objects are destroyed when their session ends.
 * Rights    The code runs inside the daemon and its sandbox: it cannot write files outside the
 *           daemon's home, start programs or listen. It must not block, end the process, or fork.
 * Errors    A C++ exception that leaves one of these functions is caught and logged. A crash is the
 *           daemon's, except while the bundle is loaded and its first object made: that is tried
 *           in a process of its own when the daemon starts, and a bundle that fails is not used.
 */
#ifndef CORVID_BUNDLE_H
#define CORVID_BUNDLE_H

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Of this header; a bundle with another version is not used. */
#define CORVID_BUNDLE_VERSION 1

/* All functions are required. Texts are UTF-8. */
typedef struct corvid_bundle_class {
  const char* name;
  /* A new object, or NULL. */
  void* (*create)(void);
  void (*destroy)(void* object);
  /* Whether it performs the operation: 0 or not. */
  int (*responds_to)(void* object, const char* operation);
  /* Performs an operation that it responds to. `payload` is a dictionary as a binary property list
     of `length` bytes, good until the function returns; NULL where the event has none. */
  void (*perform)(void* object, const char* operation, uint16_t method, uint16_t resp_code,
                  const void* payload, size_t length);
} corvid_bundle_class_t;

typedef struct corvid_bundle {
  uint32_t version; /* CORVID_BUNDLE_VERSION */
  size_t class_count;
  const corvid_bundle_class_t* classes;
} corvid_bundle_t;

/* The one symbol that a bundle defines. */
extern const corvid_bundle_t corvid_bundle;

#ifdef __cplusplus
}
#endif

#endif
