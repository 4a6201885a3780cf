#include <fmt/format.h>

#include "tools/Gzip.h"
#include "tools/lab/conform/Checks.h"

namespace corvid::lab::conform {

namespace {

constexpr std::size_t manyEvents = 8000;  // about 3 MiB of JSON

Lines gzipLines() {
  Lines lines = Device::postLines();
  lines.emplace_back("Content-Encoding: gzip");
  return lines;
}

std::vector<Trial> plain(Device& device) {
  return {{"a post of one event, plain", device.soundPost(), Expected::taken}};
}

std::vector<Trial> packed(Device& device) {
  const std::string& path = *device.collector().events;
  return {{"a post of 50 events, as gzip", device.request(path, gzip(device.post(50)), gzipLines()),
           Expected::taken}};
}

std::vector<Trial> realtime(Device& device) {
  Lines lines = Device::postLines();
  lines.emplace_back("X-CVD-Event-Map: 7 2");
  return {{"a post of one event with X-CVD-Event-Map",
           device.request(*device.collector().realtime, device.post(), lines), Expected::taken}};
}

std::vector<Trial> fewHeaders(Device& device) {
  const Lines lines{"User-Agent: Corvid/8.1 (Workbench1,1; 12)", "X-CVD-Client-Version: 3",
                    "X-CVD-Sender: ZH", "Accept: application/json",
                    "Content-Type: application/json"};
  return {{"a post without names of client and service",
           device.request(*device.collector().events, device.post(), lines), Expected::taken}};
}

std::vector<Trial> headerNames(Device& device) {
  const Lines lines{"x-cvd-client-name: Player", "x-cvd-client-version: 3", "X-CVD-SENDER: ZH",
                    "content-type: application/json", "content-encoding: gzip"};
  return {{"headers whose names are in small letters",
           device.request(*device.collector().events, gzip(device.post()), lines),
           Expected::taken}};
}

std::vector<Trial> headerTexts(Device& device) {
  Lines lines{"X-CVD-Client-Name: Gr\u00fc\u00dfe (\u65e5\u672c)", "X-CVD-Internal-Build: 1",
              "X-CVD-Client-Version: 3", "X-CVD-Sender: ZH", "Content-Type: application/json"};
  return {{"a client's name that is not ASCII",
           device.request(*device.collector().events, device.post(), lines), Expected::taken}};
}

std::vector<Trial> taken(Device& device, std::string sent, std::string_view members) {
  const std::string& path = *device.collector().events;
  return {{std::move(sent), device.request(path, device.post(1, members), Device::postLines()),
           Expected::taken}};
}

std::vector<Trial> texts(Device& device) {
  return taken(device, "texts of every kind, some of them as escapes",
               "\"empty\":\"\",\"plain\":\"gr\u00fc\u00df \u65e5\u672c \U0001f600 \u2028\","
               R"("escapes":"\u00e9\ud83d\ude00\u0001\\\"\/\b\f\n\r\t","\u00fc":"a key")");
}

std::vector<Trial> numbers(Device& device) {
  return taken(device, "numbers up to the ends of 64 bits and of doubles",
               R"("least":-9223372036854775808,"most":9223372036854775807,"tiny":1e-300,)"
               R"("huge":1.7976931348623157e308,"tenth":0.1,"zero":-0.0,"whole":1E5)");
}

std::vector<Trial> unknownKeys(Device& device) {
  return taken(device, "keys that nobody knows, with values of every type",
               R"("odd":null,"yes":true,"no":false,"list":[1,[],{}],"inner":{"a":{"b":[]}})");
}

std::vector<Trial> large(Device& device) {
  const std::string& path = *device.collector().events;
  return {{fmt::format("a post of {} events, as gzip", manyEvents),
           device.request(path, gzip(device.post(manyEvents)), gzipLines()), Expected::taken}};
}

std::vector<Trial> repeated(Device& device) {
  const std::string& path = *device.collector().events;
  const std::string body = device.post();
  const std::string first = device.request(path, body, Device::postLines());
  return {{"a post", first, Expected::taken},
          {"the same post again", first, Expected::taken},
          {"the same post again, as gzip", device.request(path, gzip(body), gzipLines()),
           Expected::taken}};
}

}  // namespace

std::vector<Check> postChecks() {
  constexpr Address events = Address::events;
  return {
      checkOf("plainPost", events, "a plain post is taken", plain),
      checkOf("gzipPost", events, "a post as gzip is taken", packed),
      checkOf("realtimePost", Address::realtime, "a realtime post is taken", realtime),
      checkOf("fewHeaders", events, "headers that devices leave out are not asked for", fewHeaders),
      checkOf("headerNames", events, "names of headers are known in whatever case", headerNames),
      checkOf("headerTexts", events, "headers may hold UTF-8", headerTexts),
      checkOf("texts", events, "every text that JSON can hold but NUL is taken", texts),
      checkOf("numbers", events, "every number that a double can hold is taken", numbers),
      checkOf("unknownKeys", events, "keys that nobody knows are taken", unknownKeys),
      checkOf("largePost", events, "a post of some megabytes is taken", large),
      checkOf("repeatedPost", events, "a post that comes again is taken again", repeated),
  };
}

}  // namespace corvid::lab::conform
