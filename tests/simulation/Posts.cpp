#include "tests/simulation/Posts.h"

#include <zlib.h>

#include <stdexcept>
#include <string>
#include <utility>

#include "platform/data/JSON.h"

namespace corvid::simulation {

namespace {

constexpr std::size_t longestBody = std::size_t{8} << 20;
constexpr int gzipWindow = 15 + 16;

std::string unpacked(const std::string& packed) {
  z_stream stream{};
  if (inflateInit2(&stream, gzipWindow) != Z_OK) throw std::runtime_error("no memory to unpack");
  std::string plain(packed.size() * 16 + 1024, '\0');
  stream.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(packed.data()));
  stream.avail_in = static_cast<uInt>(packed.size());
  int result = Z_OK;
  while (result == Z_OK && plain.size() <= longestBody) {
    if (stream.total_out == plain.size()) plain.resize(plain.size() * 2);
    stream.next_out = reinterpret_cast<Bytef*>(plain.data()) + stream.total_out;
    stream.avail_out = static_cast<uInt>(plain.size() - stream.total_out);
    result = inflate(&stream, Z_NO_FLUSH);
  }
  plain.resize(stream.total_out);
  inflateEnd(&stream);
  if (result != Z_STREAM_END) throw std::runtime_error("a body that cannot be unpacked");
  return plain;
}

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
    plain = unpacked(request.body);
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
