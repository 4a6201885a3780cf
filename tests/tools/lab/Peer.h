// A client of the lab's servers.
#pragma once

#include <curl/curl.h>

#include <chrono>
#include <memory>
#include <string>
#include <vector>

namespace corvid::lab {

// What came back from a plain blocking transfer.
struct Got {
  CURLcode code = CURLE_OK;
  long status = 0;
  std::string head;
  std::string body;
};

// Keeps its connection from one transfer to the next, follows no redirect, and trusts one authority
// only. Goes away in the middle of a body over `bodyLimit`.
class Peer {
 public:
  static constexpr std::size_t bodyLimit = 8'000'000;

  explicit Peer(std::string caFile) : _caFile(std::move(caFile)) {}

  // With a `body` the request is a POST.
  Got get(const std::string& url, const std::string* body = nullptr,
          const std::vector<std::string>& headers = {}) {
    Got got;
    CURL* curl = _curl.get();
    curl_easy_reset(curl);
    curl_easy_setopt(curl, CURLOPT_URL, url.c_str());
    curl_easy_setopt(curl, CURLOPT_CAINFO, _caFile.c_str());
    curl_easy_setopt(curl, CURLOPT_PROXY, "");
    curl_easy_setopt(curl, CURLOPT_TIMEOUT_MS, timeout.count());
    curl_easy_setopt(curl, CURLOPT_HEADERFUNCTION, append);
    curl_easy_setopt(curl, CURLOPT_HEADERDATA, &got.head);
    curl_easy_setopt(curl, CURLOPT_WRITEFUNCTION, append);
    curl_easy_setopt(curl, CURLOPT_WRITEDATA, &got.body);
    if (body) {
      curl_easy_setopt(curl, CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(body->size()));
      curl_easy_setopt(curl, CURLOPT_POSTFIELDS, body->data());
    }
    // A large body would wait a second for an interim answer.
    std::unique_ptr<curl_slist, decltype(&curl_slist_free_all)> list(
        curl_slist_append(nullptr, "Expect:"), curl_slist_free_all);
    for (const std::string& header : headers)
      list.reset(curl_slist_append(list.release(), header.c_str()));
    curl_easy_setopt(curl, CURLOPT_HTTPHEADER, list.get());
    got.code = curl_easy_perform(curl);
    curl_easy_getinfo(curl, CURLINFO_RESPONSE_CODE, &got.status);
    return got;
  }
  Got post(const std::string& url, const std::string& body,
           const std::vector<std::string>& headers = {}) {
    return get(url, &body, headers);
  }

  std::chrono::milliseconds timeout = std::chrono::seconds(20);

 private:
  static std::size_t append(char* data, std::size_t, std::size_t size, void* text) {
    auto& whole = *static_cast<std::string*>(text);
    whole.append(data, size);
    return whole.size() > bodyLimit ? 0 : size;
  }

  const std::string _caFile;
  std::unique_ptr<CURL, decltype(&curl_easy_cleanup)> _curl{curl_easy_init(), curl_easy_cleanup};
};

}  // namespace corvid::lab
