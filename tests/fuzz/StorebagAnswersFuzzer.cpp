// What a storebag server, or whoever stands in its place, answers: statuses, headers and bodies,
// one answer after the other, through the fetch and the cache. An input is a text: a line with the
// status, or
// "-" where the exchange fails; header lines "Name: value"; an empty line; the body up to a line
// with a single "."; and so on.
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "base/Reading.h"
#include "daemon/StorebagCache.h"
#include "platform/data/Crypto.h"
#include "tests/fakes/TestPlatform.h"
#include "tests/fuzz/Require.h"
#include "tests/fuzz/SignedStorebag.h"

namespace {

using namespace corvid;
using fuzz::require;

std::string_view takeLine(std::string_view& text) {
  const auto end = text.find('\n');
  const std::string_view line = text.substr(0, end);
  text.remove_prefix(end == text.npos ? text.size() : end + 1);
  return line;
}

HTTPOutcome takeAnswer(std::string_view& text) {
  const std::string_view status = takeLine(text);
  HTTPHeaders headers;
  for (std::string_view line = takeLine(text); !line.empty(); line = takeLine(text)) {
    const auto colon = line.find(':');
    if (colon == line.npos) continue;
    std::string_view value = line.substr(colon + 1);
    while (value.starts_with(' ')) value.remove_prefix(1);
    headers.emplace_back(line.substr(0, colon), value);
  }
  constexpr std::string_view end = "\n.\n";
  const auto stop = text.starts_with(".\n") ? 0 : text.find(end);
  std::string body(text.substr(0, stop));
  text.remove_prefix(stop == text.npos ? text.size() : stop + (stop == 0 ? 2 : end.size()));
  if (status.starts_with('-')) return FakeHTTPClient::error(7, "no route to host");
  return FakeHTTPClient::response(static_cast<int>(integerFromText(status)), std::move(body),
                                  std::move(headers));
}

std::optional<std::string> conditionOf(const HTTPRequest& request) {
  for (const auto& [name, value] : request.headers)
    if (name == "If-Modified-Since") return value;
  return std::nullopt;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  std::string_view input(reinterpret_cast<const char*>(data), size);
  TestPlatform platform;
  platform.files->files["/nonexistent/root/usr/share/corvid/publicKey.der"] = {
      fuzz::publicKeyOfSignedStorebag(), {}};
  HTTPOutcome answer;
  platform.http->answerWith([&](const HTTPRequest&) { return answer; });

  FetchedStorebag last;
  StorebagCache cache(
      [&](std::int32_t, const std::optional<std::string>& lastModified) {
        last = fetchStorebagWithName("lumen", lastModified);
        require(last.storebag.has_value() + last.notModified <= 1);
        // Only what is signed gets in, whatever stands around it.
        if (last.storebag) {
          require(*last.storebag == fuzz::signedStorebag());
          last.version = "7.1";
        }
        require(!last.notModified || lastModified);
        return last;
      },
      std::make_shared<StorebagBoard>());
  constexpr std::int32_t lumenClient = 5;
  constexpr std::uint32_t user = 1000;
  std::optional<Dictionary> kept;
  std::optional<std::string> lastModified;
  for (int answers = 0; !input.empty() && answers < 64; ++answers) {
    answer = takeAnswer(input);
    require(cache.wouldFetch(lumenClient, user));
    const auto given = cache.storebag(lumenClient, user);
    // What was good stays, and what the server called it goes with the next question.
    require(static_cast<bool>(given));
    require(conditionOf(platform.http->requests().back()) == lastModified);
    if (last.storebag) kept = last.storebag;
    if (last.lastModified) lastModified = last.lastModified;
    if (last.notModified && !kept) lastModified.reset();
    require(given.value() == kept);
    require(cache.version(lumenClient) ==
            (kept ? std::optional<std::string>("7.1") : std::nullopt));

    const auto requests = platform.http->requests().size();
    const bool succeeded = last.storebag || last.notModified;
    const std::int64_t rest = succeeded ? last.maxAge : StorebagCache::secondsBetweenAttempts;
    if (rest > 0) {
      platform.clock->advance(std::chrono::seconds(rest - 1));
      require(cache.storebag(lumenClient, user).value() == kept);
      require(platform.http->requests().size() == requests);
    }
    platform.clock->advance(std::chrono::seconds(1));
  }
  return 0;
}
