// libcurl, loaded when the first exchange begins.
#pragma once

#include <curl/curl.h>

#include "base/Result.h"

namespace corvid {

// libcurl brings some thirty other libraries into the process. A daemon that has nothing to fetch
// and nothing to post does without their start-up time and memory, so they are loaded on demand
// and then stay.
//
// Members are libcurl's functions of the same name without its prefix.
struct CurlLibrary {
  decltype(&::curl_global_init) global_init = nullptr;
  decltype(&::curl_version_info) version_info = nullptr;
  decltype(&::curl_easy_init) easy_init = nullptr;
  decltype(&::curl_easy_setopt) easy_setopt = nullptr;
  decltype(&::curl_easy_getinfo) easy_getinfo = nullptr;
  decltype(&::curl_easy_strerror) easy_strerror = nullptr;
  decltype(&::curl_easy_cleanup) easy_cleanup = nullptr;
  decltype(&::curl_multi_init) multi_init = nullptr;
  decltype(&::curl_multi_setopt) multi_setopt = nullptr;
  decltype(&::curl_multi_add_handle) multi_add_handle = nullptr;
  decltype(&::curl_multi_remove_handle) multi_remove_handle = nullptr;
  decltype(&::curl_multi_perform) multi_perform = nullptr;
  decltype(&::curl_multi_poll) multi_poll = nullptr;
  decltype(&::curl_multi_wakeup) multi_wakeup = nullptr;
  decltype(&::curl_multi_info_read) multi_info_read = nullptr;
  decltype(&::curl_multi_cleanup) multi_cleanup = nullptr;

  // Loads and initialises it. Fails where it is missing, or older than the one this was built for.
  static Result<CurlLibrary> load(const char* name = "libcurl.so.4");
};

// The library of this process, loaded by the first call; whether that went well. Any thread.
const Result<CurlLibrary>& curlLibrary();

// For those that run once it is there.
inline const CurlLibrary& curl() { return curlLibrary().value(); }

}  // namespace corvid
