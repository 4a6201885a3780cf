/* A table that is filled in C: each key's literal beside its pointer. */
#ifndef TESTS_CLIENT_STATIC_KEYS_H
#define TESTS_CLIENT_STATIC_KEYS_H

#include <corvid/corvid.h>

#ifdef __cplusplus
extern "C" {
#endif

struct static_key {
  const char* literal;
  const char* const* pointer;
};
extern const struct static_key static_keys[];
extern const size_t static_key_count;

#ifdef __cplusplus
}
#endif

#endif
