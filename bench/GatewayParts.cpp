#include "bench/GatewayParts.h"

#include <fmt/format.h>
#include <rapidjson/memorystream.h>
#include <rapidjson/reader.h>
#include <time.h>

#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "bench/GatewayPosts.h"
#include "bench/Program.h"
#include "gateway/body/Digest.h"
#include "gateway/body/Gunzip.h"
#include "gateway/body/JSONCheck.h"

namespace corvid::bench {

namespace {

template <class Work>
void measureAlone(std::string_view name, const std::vector<FleetPost>& posts, int events,
                  Work work) {
  std::vector<double> rounds;
  for (int round = 0; round < 7; ++round) {
    const auto start = threadTime();
    for (const FleetPost& post : posts) work(post);
    rounds.push_back(inMicros(threadTime() - start) / static_cast<double>(posts.size()));
  }
  const double micros = median(rounds);
  fmt::print("    {:<10} alone: {:7.2f} us an event, {:8.1f} a post\n", name, micros / events,
             micros);
}

}  // namespace

std::chrono::nanoseconds threadTime() {
  timespec time{};
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &time);
  return std::chrono::seconds(time.tv_sec) + std::chrono::nanoseconds(time.tv_nsec);
}

void measureGatewayParts(int events) {
  const auto posts = makeFleetPosts(256, events);
  std::string room(posts[0].body.size() * 2, '\0');
  fleet::Gunzip gunzip;
  measureAlone("inflate", posts, events, [&](const FleetPost& post) {
    gunzip.reset();
    std::string_view packed = post.packed;
    if (gunzip.unpack(packed, room) != post.body.size()) throw std::runtime_error("not unpacked");
  });
  measureAlone("JSON check", posts, events, [&](const FleetPost& post) {
    fleet::JSONCheck check;
    if (check.advance(post.body, true)) throw std::runtime_error("not taken");
  });
  // What a reader from a library takes that checks less: for comparison.
  measureAlone("RapidJSON", posts, events, [&](const FleetPost& post) {
    using namespace rapidjson;
    MemoryStream stream(post.body.data(), post.body.size());
    BaseReaderHandler<UTF8<>> nothing;
    Reader reader;
    constexpr unsigned flags = kParseValidateEncodingFlag | kParseNumbersAsStringsFlag;
    if (!reader.Parse<flags>(stream, nothing)) throw std::runtime_error("not read");
  });
  measureAlone("SHA-256", posts, events, [&](const FleetPost& post) {
    fleet::Digest digest;
    digest.add(post.body);
    if (digest.hexadecimal().size() != 64) throw std::runtime_error("not digested");
  });
}

}  // namespace corvid::bench
