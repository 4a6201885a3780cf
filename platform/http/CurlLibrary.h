// libcurl, loaded when the first exchange begins.
#pragma once

#include <curl/curl.h>

#include <new>

#include "base/Result.h"

namespace corvid {

// The functions in use, without their prefix.
#define CORVID_CURL_FUNCTIONS(each)                                                               \
  each(global_init) each(version_info) each(easy_init) each(easy_setopt) each(easy_getinfo)       \
      each(easy_perform) each(easy_strerror) each(easy_cleanup) each(multi_init)                  \
          each(multi_setopt) each(multi_add_handle) each(multi_remove_handle) each(multi_perform) \
              each(multi_poll) each(multi_wakeup) each(multi_info_read) each(multi_cleanup)

// libcurl brings some thirty other libraries into the process. A daemon that has nothing to fetch
// and nothing to post does without their start-up time and memory, so they are loaded on demand
// and then stay.
//
// Members are these functions.
struct CurlLibrary {
// NOLINTNEXTLINE(bugprone-macro-parentheses): it is a name
#define CORVID_CURL_MEMBER(name) decltype(&::curl_##name) name = nullptr;
  CORVID_CURL_FUNCTIONS(CORVID_CURL_MEMBER)
#undef CORVID_CURL_MEMBER

  // Loads and initialises it. Fails where it is missing, or older than the one this was built for.
  static Result<CurlLibrary> load(const char* file = "libcurl.so.4");
};

// The library of this process, loaded by the first call; whether that went well. Any thread.
const Result<CurlLibrary>& curlLibrary();

// For those that run once it is there.
inline const CurlLibrary& curl() { return curlLibrary().value(); }

// Options are set with constants of the right type, so that only the lack of memory can fail.
template <class T>
void setOption(CURL* handle, CURLoption option, T value) {
  if (curl().easy_setopt(handle, option, value) == CURLE_OUT_OF_MEMORY) throw std::bad_alloc();
}

}  // namespace corvid
