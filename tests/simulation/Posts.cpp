#include "tests/simulation/Posts.h"

#include <stdexcept>
#include <string>
#include <utility>

#include "platform/data/JSON.h"
#include "tools/Gzip.h"

namespace corvid::simulation {

namespace {

constexpr std::size_t longestBody = std::size_t{8} << 20;

}  // namespace

Post postOf(const HTTPRequest& request) {
  Post post{.url = request.url};
  for (const auto& [name, value] : request.headers)
    if (!post.headers.emplace(name, value).second) throw std::runtime_error("two headers " + name);
  if (request.method != "POST") throw std::runtime_error("a request " + request.method);
  if (post.headers["Content-Length"] != std::to_string(request.body.size()))
    throw std::runtime_error("Content-Length " + post.headers["Content-Length"]);
  std::string plain = request.body;
  if (const auto coding = post.headers.find("Content-Encoding"); coding != post.headers.end()) {
    if (coding->second != "gzip") throw std::runtime_error("Content-Encoding " + coding->second);
    auto unpacked = gunzip(request.body, longestBody);
    if (!unpacked) throw std::runtime_error("a body that cannot be unpacked");
    plain = *std::move(unpacked);
    if (plain.size() <= request.body.size()) throw std::runtime_error("packed, and not shorter");
    post.headers.erase(coding);
  }
  post.headers.erase("Content-Length");
  const auto parsed = parseJSON(plain);
  if (!parsed || !parsed.value().dictionary())
    throw std::runtime_error("a body that is no JSON: " + plain);
  post.body = *parsed.value().dictionary();
  return post;
}

}  // namespace corvid::simulation
