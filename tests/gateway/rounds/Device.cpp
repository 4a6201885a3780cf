#include "tests/gateway/rounds/Device.h"

#include <curl/curl.h>
#include <fmt/format.h>

#include <algorithm>
#include <memory>
#include <utility>

#include "tests/gateway/Caller.h"
#include "tools/Gzip.h"

namespace corvid::fleet {

namespace {

constexpr std::chrono::milliseconds betweenTries{200};

struct EndHandle {
  void operator()(CURL* handle) const { curl_easy_cleanup(handle); }
};
struct EndHeaders {
  void operator()(curl_slist* headers) const { curl_slist_free_all(headers); }
};
using Handle = std::unique_ptr<CURL, EndHandle>;
using Headers = std::unique_ptr<curl_slist, EndHeaders>;

Headers makeHeaders() {
  curl_slist* list = nullptr;
  for (const char* const header :
       {"Content-Type: application/json", "Content-Encoding: gzip", "X-CVD-Sender: ZH", "Expect:"})
    list = curl_slist_append(list, header);
  return Headers(list);
}

Handle makeHandle(const std::string& url, const std::string& caFile, const Headers& headers) {
  Handle handle(curl_easy_init());
  // Longer than a gateway holds a post, and nginx waits for a gateway.
  constexpr long limit = 45, connecting = 5, off = 0, on = 1;
  curl_easy_setopt(handle.get(), CURLOPT_URL, url.c_str());
  curl_easy_setopt(handle.get(), CURLOPT_CAINFO, caFile.c_str());
  curl_easy_setopt(handle.get(), CURLOPT_HTTPHEADER, headers.get());
  curl_easy_setopt(handle.get(), CURLOPT_TIMEOUT, limit);
  curl_easy_setopt(handle.get(), CURLOPT_CONNECTTIMEOUT, connecting);
  curl_easy_setopt(handle.get(), CURLOPT_NOSIGNAL, on);
  curl_easy_setopt(handle.get(), CURLOPT_VERBOSE, off);
  curl_easy_setopt(handle.get(), CURLOPT_PROXY, "");
  curl_easy_setopt(
      handle.get(), CURLOPT_WRITEFUNCTION,
      +[](char*, std::size_t size, std::size_t count, void*) { return size * count; });
  return handle;
}

// Of the answer to a post; 0 where there was none.
long statusOf(CURL* handle, const std::string& body) {
  curl_easy_setopt(handle, CURLOPT_POSTFIELDSIZE, static_cast<long>(body.size()));
  curl_easy_setopt(handle, CURLOPT_POSTFIELDS, body.data());
  long status = 0;
  if (curl_easy_perform(handle) == CURLE_OK)
    curl_easy_getinfo(handle, CURLINFO_RESPONSE_CODE, &status);
  return status;
}

}  // namespace

Device::Device(Options options)
    : _options(std::move(options)), _thread([this](const std::stop_token& stop) { run(stop); }) {}

std::string Device::bodyOf(const std::string& client, std::size_t post) {
  // A gateway does not ask for "clientId", and a loader has no row without it.
  std::string body = fmt::format(R"({{"postTime":1795255260.5,"{}":"{}","events":[)",
                                 isUnloadable(post) ? "client" : "clientId", client);
  for (std::size_t event = 0; event < eventsOfPost; ++event)
    body += fmt::format(
        R"({}{{"post":{},"_method":7,"_sessionID":"root.child","_build":"6.1","_eventNumber":{}}})",
        event == 0 ? "" : ",", post, event + 1);
  return body + "]}";
}

void Device::run(const std::stop_token& stop) {
  const Headers headers = makeHeaders();
  const Handle handle = makeHandle(_options.url, _options.caFile, headers);
  const auto mayTry = [&] {
    const std::lock_guard lock(_mutex);
    return Clock::now() < _end;
  };
  for (std::size_t number = 0; !stop.stop_requested(); ++number) {
    const std::string body = gzip(bodyOf(_options.client, number));
    {
      const std::lock_guard lock(_mutex);
      ++_sums.posts;
    }
    while (mayTry()) {
      const long status = statusOf(handle.get(), body);
      count(status);
      if (status == 200) break;
      std::this_thread::sleep_for(betweenTries);
    }
    std::this_thread::sleep_for(_options.interval);
  }
}

void Device::count(long status) {
  const std::lock_guard lock(_mutex);
  ++_sums.tries;
  if (status == 200) {
    ++_sums.acknowledged;
    _acknowledged.push_back(Clock::now());
  } else if (status == 0) {
    ++_sums.unanswered;
  } else if (status >= 500) {
    ++_sums.serverFaults;
  } else {
    ++_sums.otherFaults;
  }
}

void Device::finish(Clock::time_point deadline) {
  _thread.request_stop();
  const std::lock_guard lock(_mutex);
  _end = deadline;
}

void Device::await() {
  if (_thread.joinable()) _thread.join();
}

Device::Sums Device::sums() const {
  const std::lock_guard lock(_mutex);
  return _sums;
}

std::vector<Device::Clock::time_point> Device::acknowledgements() const {
  const std::lock_guard lock(_mutex);
  return _acknowledged;
}

std::optional<Device::Clock::time_point> Device::firstAcknowledgedAfter(
    Clock::time_point moment) const {
  const std::lock_guard lock(_mutex);
  const auto first = std::ranges::upper_bound(_acknowledged, moment);
  return first == _acknowledged.end() ? std::nullopt : std::optional(*first);
}

}  // namespace corvid::fleet
