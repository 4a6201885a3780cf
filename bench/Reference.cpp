#include "bench/Reference.h"

#include <curl/curl.h>
#include <fmt/format.h>
#include <time.h>

#include <algorithm>
#include <chrono>
#include <functional>
#include <stdexcept>
#include <vector>

#include "base/Reading.h"
#include "platform/data/JSON.h"
#include "tools/Gzip.h"

namespace corvid::bench {

namespace {

double threadMicros() {
  timespec time{};
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &time);
  return static_cast<double>(time.tv_sec) * 1e6 + static_cast<double>(time.tv_nsec) / 1e3;
}

// Mean CPU time of one round, in microseconds.
double microsEach(int rounds, const std::function<void()>& round) {
  const double before = threadMicros();
  for (int i = 0; i < rounds; ++i) round();
  return (threadMicros() - before) / rounds;
}

void measurePosts(Reference& reference, const std::string& body, const std::string& url,
                  const std::string& caFile) {
  CURL* curl = curl_easy_init();
  curl_slist* headers = curl_slist_append(nullptr, "Content-Type: application/json");
  headers = curl_slist_append(headers, "Content-Encoding: gzip");
  curl_easy_setopt(curl, CURLOPT_URL, url.c_str());
  curl_easy_setopt(curl, CURLOPT_CAINFO, caFile.c_str());
  // As the daemon does.
  curl_easy_setopt(curl, CURLOPT_HTTP_VERSION, static_cast<long>(CURL_HTTP_VERSION_1_1));
  curl_easy_setopt(curl, CURLOPT_HTTPHEADER, headers);
  curl_easy_setopt(curl, CURLOPT_POSTFIELDS, body.data());
  curl_easy_setopt(curl, CURLOPT_POSTFIELDSIZE, static_cast<long>(body.size()));
  curl_easy_setopt(curl, CURLOPT_TIMEOUT, 30L);
  const auto post = [curl] {
    long status = 0;
    const CURLcode code = curl_easy_perform(curl);
    curl_easy_getinfo(curl, CURLINFO_RESPONSE_CODE, &status);
    if (code != CURLE_OK || status != 200)
      throw std::runtime_error(
          fmt::format("the reference POST failed: {}, {}", curl_easy_strerror(code), status));
  };
  post();
  std::vector<double> durations;
  reference.postMicros = microsEach(2000, [&] {
    const auto before = std::chrono::steady_clock::now();
    post();
    durations.push_back(
        std::chrono::duration<double, std::micro>(std::chrono::steady_clock::now() - before)
            .count());
  });
  std::nth_element(durations.begin(), durations.begin() + 1000, durations.end());
  reference.postLatencyMicros = durations[1000];
  curl_slist_free_all(headers);
  curl_easy_cleanup(curl);
}

}  // namespace

Reference measureReference(const std::string& batch, int events, const std::string& lone,
                           const std::string& url, const std::string& caFile) {
  Reference reference;
  std::size_t sink = 0;
  reference.gzipBatchMicros = microsEach(500, [&] { sink += gzip(batch).size(); }) / events;
  reference.gzipLoneMicros = microsEach(5000, [&] { sink += gzip(lone).size(); });
  const Result<Value> message = parseJSON(lone);
  const Array* records = message ? arrayAt(*message.value().dictionary(), "events") : nullptr;
  if (!records || records->empty()) throw std::runtime_error("the sample message holds no record");
  const Dictionary& record = *records->front().dictionary();
  reference.jsonMicros = microsEach(20000, [&] { sink += writeJSON(record)->size(); });
  if (sink == 0) throw std::runtime_error("nothing was written");
  measurePosts(reference, gzip(lone), url, caFile);
  return reference;
}

}  // namespace corvid::bench
