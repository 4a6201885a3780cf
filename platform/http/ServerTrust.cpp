#include "platform/http/ServerTrust.h"

#include <array>
#include <memory>
#include <new>

#include "platform/http/CurlLibrary.h"

namespace corvid {

void setServerTrust(CURL* handle, const std::optional<std::string>& caFile) {
  setOption(handle, CURLOPT_NOSIGNAL, 1L);
  setOption(handle, CURLOPT_PROTOCOLS_STR, "https,http");
  setOption(handle, CURLOPT_SSLVERSION, static_cast<long>(CURL_SSLVERSION_TLSv1_2));
  setOption(handle, CURLOPT_PROXY, "");

  // One kind of source only: libcurl keeps a file's certificates from one connection to the next
  // only where there is no folder, and a folder alone loads just the certificates that are used.
  const auto* const system = curl().version_info(CURLVERSION_NOW);
  const char* const folder = caFile ? nullptr : system->capath;
  setOption(handle, CURLOPT_CAPATH, folder);
  setOption(handle, CURLOPT_CAINFO, caFile ? caFile->c_str() : folder ? nullptr : system->cainfo);
}

std::optional<Failure> tryConnection(const std::string& url,
                                     const std::optional<std::string>& caFile,
                                     std::chrono::milliseconds patience) {
  if (!curlLibrary()) return curlLibrary().failure();
  struct Cleanup {
    void operator()(CURL* handle) const { curl().easy_cleanup(handle); }
  };
  const std::unique_ptr<CURL, Cleanup> handle(curl().easy_init());
  if (!handle) throw std::bad_alloc();
  std::array<char, CURL_ERROR_SIZE> text{};
  setServerTrust(handle.get(), caFile);
  setOption(handle.get(), CURLOPT_ERRORBUFFER, text.data());
  setOption(handle.get(), CURLOPT_URL, url.c_str());
  setOption(handle.get(), CURLOPT_CONNECT_ONLY, 1L);
  setOption(handle.get(), CURLOPT_TIMEOUT_MS, static_cast<long>(patience.count()));
  const CURLcode code = curl().easy_perform(handle.get());
  if (code == CURLE_OK) return std::nullopt;
  return Failure{text[0] ? text.data() : curl().easy_strerror(code), code};
}

}  // namespace corvid
