#include "platform/http/CurlLibrary.h"

#include <dlfcn.h>
#include <fmt/format.h>

#include <utility>

namespace corvid {

namespace {

// False where the library has no such function.
template <class Function>
bool look(void* library, const char* name, Function& function) {
  function = reinterpret_cast<Function>(dlsym(library, name));
  return function != nullptr;
}

}  // namespace

Result<CurlLibrary> CurlLibrary::load(const char* name) {
  // Never closed: what it has loaded must not go while threads run.
  void* const library = dlopen(name, RTLD_NOW | RTLD_LOCAL);
  if (library == nullptr) return Failure{fmt::format("cannot load libcurl: {}", dlerror())};
  CurlLibrary curl;
  const bool whole = look(library, "curl_global_init", curl.global_init) &&
                     look(library, "curl_version_info", curl.version_info) &&
                     look(library, "curl_easy_init", curl.easy_init) &&
                     look(library, "curl_easy_setopt", curl.easy_setopt) &&
                     look(library, "curl_easy_getinfo", curl.easy_getinfo) &&
                     look(library, "curl_easy_strerror", curl.easy_strerror) &&
                     look(library, "curl_easy_cleanup", curl.easy_cleanup) &&
                     look(library, "curl_multi_init", curl.multi_init) &&
                     look(library, "curl_multi_setopt", curl.multi_setopt) &&
                     look(library, "curl_multi_add_handle", curl.multi_add_handle) &&
                     look(library, "curl_multi_remove_handle", curl.multi_remove_handle) &&
                     look(library, "curl_multi_perform", curl.multi_perform) &&
                     look(library, "curl_multi_poll", curl.multi_poll) &&
                     look(library, "curl_multi_wakeup", curl.multi_wakeup) &&
                     look(library, "curl_multi_info_read", curl.multi_info_read) &&
                     look(library, "curl_multi_cleanup", curl.multi_cleanup);
  if (!whole) return Failure{fmt::format("cannot use {} as libcurl: {}", name, dlerror())};
  const curl_version_info_data* const version = curl.version_info(CURLVERSION_NOW);
  if (version->version_num < LIBCURL_VERSION_NUM)
    return Failure{fmt::format("libcurl is {}, older than the {} that this was built for",
                               version->version, LIBCURL_VERSION)};
  if (const CURLcode code = curl.global_init(CURL_GLOBAL_DEFAULT); code != CURLE_OK)
    return Failure{fmt::format("cannot initialise libcurl: {}", curl.easy_strerror(code))};
  return curl;
}

const Result<CurlLibrary>& curlLibrary() {
  static const Result<CurlLibrary> library = CurlLibrary::load();
  return library;
}

}  // namespace corvid
