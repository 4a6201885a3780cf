#include <fmt/format.h>

#include "tools/Gzip.h"
#include "tools/lab/conform/Checks.h"

namespace corvid::lab::conform {

namespace {

constexpr std::size_t mebibyte = std::size_t{1} << 20;
constexpr std::size_t bombMebibytes = 256;
constexpr std::size_t levels = 100'000;
constexpr std::size_t manyMembers = 100'000;

// A body to the address of events, announced as encoded so; plain without an encoding.
Trial posted(Device& device, std::string sent, std::string_view body, Expected expected,
             std::string_view encoding = {}) {
  Lines lines = Device::postLines();
  if (!encoding.empty()) lines.push_back(fmt::format("Content-Encoding: {}", encoding));
  return {std::move(sent), device.request(*device.collector().events, body, lines), expected};
}

Trial refused(Device& device, std::string sent, std::string_view body) {
  return posted(device, std::move(sent), body, Expected::refused);
}

// An event of these members, which readers may differ about.
Trial doubtful(Device& device, std::string sent, std::string_view members) {
  return posted(device, std::move(sent), device.post(1, members), Expected::notFailed);
}

std::vector<Trial> damagedGzip(Device& device) {
  const std::string plain = device.post();
  const std::string packed = gzip(plain);
  std::string altered = packed;
  altered[packed.size() - 6] ^= 1;  // of the check sum
  const auto trial = [&](std::string sent, std::string_view body) {
    return posted(device, std::move(sent), body, Expected::refused, "gzip");
  };
  return {trial("a plain post that is announced as gzip", plain),
          trial("gzip without its last byte", packed.substr(0, packed.size() - 1)),
          trial("gzip with a wrong check sum", altered),
          trial("gzip with text behind it", packed + "text"),
          trial("an empty body that is announced as gzip", "")};
}

std::vector<Trial> gzipBomb(Device& device) {
  static const std::string bomb = GzipWriter()
                                      .add(R"({"events":[)")
                                      .add(std::string(mebibyte, ' '), bombMebibytes)
                                      .add("]}")
                                      .finish();
  return {posted(device,
                 fmt::format("{} bytes of gzip that unpack to {} MiB", bomb.size(), bombMebibytes),
                 bomb, Expected::refused, "gzip")};
}

std::vector<Trial> encoding(Device& device) {
  const std::string packed = gzip(device.post());
  std::vector<Trial> trials;
  for (const char* const name : {"br", "unheard-of", "gzip, gzip"})
    trials.push_back(posted(device, fmt::format("gzip that is announced as \"{}\"", name), packed,
                            Expected::refused, name));
  return trials;
}

std::vector<Trial> noJSON(Device& device) {
  const std::string post = device.post();
  return {refused(device, "an empty body", ""), refused(device, "the text \"hello\"", "hello"),
          refused(device, "a post without its last byte", post.substr(0, post.size() - 1)),
          refused(device, "a post with a second object behind it", post + "{}"),
          refused(device, "a number without an end", R"({"events":[{"a":1.}]})")};
}

std::vector<Trial> wrongShape(Device& device) {
  std::vector<Trial> trials;
  for (const char* const body :
       {"[]", "1", "{}", R"({"events":{}})", R"({"events":[1]})", R"({"events":[{"a":1},[]]})"})
    trials.push_back(refused(device, body, body));
  return trials;
}

std::vector<Trial> invalidUTF8(Device& device) {
  std::vector<Trial> trials;
  for (const char* const bytes : {"\xff", "\xc0\xaf", "\xed\xa0\x80", "\xf4\x90\x80\x80"})
    trials.push_back(refused(device, "a text whose bytes are no UTF-8",
                             device.post(1, fmt::format("\"text\":\"{}\"", bytes))));
  return trials;
}

std::vector<Trial> nesting(Device& device) {
  return {doubtful(device, fmt::format("arrays that are nested {} levels deep", levels),
                   "\"a\":" + std::string(levels, '[') + std::string(levels, ']'))};
}

std::vector<Trial> duplicateKeys(Device& device) {
  return {doubtful(device, "a key that stands twice", R"("a":1,"a":2)"),
          doubtful(device, "a key that stands twice, once as escapes", R"("a":1,"\u0061":2)")};
}

std::vector<Trial> members(Device& device) {
  std::string text = "\"0\":0";
  for (std::size_t i = 1; i < manyMembers; ++i) text += fmt::format(",\"{}\":0", i);
  return {doubtful(device, fmt::format("an event of {} members", manyMembers), text)};
}

std::vector<Trial> nul(Device& device) {
  return {doubtful(device, "a text with NUL as an escape", R"("a":"x\u0000y")"),
          doubtful(device, "a text with the byte NUL", std::string_view("\"a\":\"x\0y\"", 9))};
}

std::vector<Trial> surrogates(Device& device) {
  return {doubtful(device, "an escape that is half a surrogate pair", R"("a":"\udc00")"),
          doubtful(device, "the first half of a surrogate pair alone", R"("a":"\ud800x")")};
}

std::vector<Trial> numberRange(Device& device) {
  return {doubtful(device, "a number beyond a double", R"("a":1e999)"),
          doubtful(device, "a number below a double", R"("a":1e-999)"),
          doubtful(device, "a number of 10000 digits", "\"a\":" + std::string(10'000, '9'))};
}

}  // namespace

std::vector<Check> bodyChecks() {
  constexpr Address events = Address::events;
  return {
      checkOf("damagedGzip", events, "what is not one whole gzip stream is refused", damagedGzip),
      checkOf("gzipBomb", events, "what unpacks to more than posts have is refused", gzipBomb),
      checkOf("encoding", events, "an encoding that is not known is refused", encoding),
      checkOf("noJSON", events, "what is not JSON is refused", noJSON),
      checkOf("wrongShape", events, "what is no object with an array of events is refused",
              wrongShape),
      checkOf("invalidUTF8", events, "what is not UTF-8 is refused", invalidUTF8),
      checkOf("nesting", events, "deep nesting is no failure", nesting),
      checkOf("duplicateKeys", events, "a key that stands twice is no failure", duplicateKeys),
      checkOf("members", events, "an object of many members is no failure", members),
      checkOf("nul", events, "the character NUL is no failure", nul),
      checkOf("surrogates", events, "half a surrogate pair is no failure", surrogates),
      checkOf("numberRange", events, "a number out of range is no failure", numberRange),
  };
}

}  // namespace corvid::lab::conform
