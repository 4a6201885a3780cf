#include "platform/http/CurlLibrary.h"

#include <dlfcn.h>
#include <fmt/format.h>

namespace corvid {

Result<CurlLibrary> CurlLibrary::load(const char* file) {
  // Never closed: what it has loaded must not go while threads run.
  void* const library = dlopen(file, RTLD_NOW | RTLD_LOCAL);
  if (library == nullptr) return Failure{fmt::format("cannot load libcurl: {}", dlerror())};
  CurlLibrary curl;
#define CORVID_CURL_LOOK(name)                                                      \
  curl.name = reinterpret_cast<decltype(curl.name)>(dlsym(library, "curl_" #name)); \
  if (!curl.name) return Failure{fmt::format("cannot use {} as libcurl: {}", file, dlerror())};
  CORVID_CURL_FUNCTIONS(CORVID_CURL_LOOK)
#undef CORVID_CURL_LOOK
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
