// The bare program: what nobody who reports these events can leave out, and nothing else. It reads
// events from a client, writes each as a JSON record, compresses a message of them and posts it
// over TLS, on one thread. It answers nobody, filters nothing, knows no states and bounds nothing.
//
//   bare URL CA-FILE CONSTANTS < EVENTS
// CONSTANTS are the fields that each record has, as JSON without its braces. At the end of the
// events (BareFrame.h) it prints the CPU time in microseconds that it took from the first one on.
#include <curl/curl.h>
#include <fmt/format.h>
#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>
#include <sys/resource.h>
#include <time.h>
#include <unistd.h>
#include <zlib.h>

#include <cstdio>
#include <cstdlib>
#include <string>
#include <string_view>
#include <vector>

#include "bench/BareFrame.h"

namespace corvid::bench {
namespace {

double secondsNow() {
  timespec now{};
  clock_gettime(CLOCK_REALTIME, &now);
  return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) / 1e9;
}

double cpuMicros() {
  rusage usage{};
  getrusage(RUSAGE_SELF, &usage);
  const auto micros = [](const timeval& time) {
    return static_cast<double>(time.tv_sec) * 1e6 + static_cast<double>(time.tv_usec);
  };
  return micros(usage.ru_utime) + micros(usage.ru_stime);
}

class Poster {
 public:
  Poster(const char* url, const char* caFile) : _curl(curl_easy_init()) {
    // As many headers as the daemon's, of the same kind.
    for (const char* const header :
         {"User-Agent: Corvid/1.0 (bench; 1)", "Accept: application/json",
          "Content-Type: application/json", "X-CVD-Client-Name: Bench",
          "X-CVD-Service-Name: Events", "X-CVD-Client-Version: 1", "X-CVD-Sender: lumen",
          "Content-Encoding: gzip", "Expect:"})
      _headers = curl_slist_append(_headers, header);
    curl_easy_setopt(_curl, CURLOPT_URL, url);
    curl_easy_setopt(_curl, CURLOPT_CAINFO, caFile);
    curl_easy_setopt(_curl, CURLOPT_HTTP_VERSION, static_cast<long>(CURL_HTTP_VERSION_1_1));
    curl_easy_setopt(_curl, CURLOPT_HTTPHEADER, _headers);
    deflateInit2(&_deflate, -1, Z_DEFLATED, 31, 8, Z_DEFAULT_STRATEGY);
  }
  ~Poster() {
    deflateEnd(&_deflate);
    curl_slist_free_all(_headers);
    curl_easy_cleanup(_curl);
  }
  Poster(const Poster&) = delete;
  Poster& operator=(const Poster&) = delete;

  void post(std::string_view text) {
    deflateReset(&_deflate);
    _body.resize(deflateBound(&_deflate, text.size()));
    _deflate.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(text.data()));
    _deflate.avail_in = static_cast<uInt>(text.size());
    _deflate.next_out = reinterpret_cast<Bytef*>(_body.data());
    _deflate.avail_out = static_cast<uInt>(_body.size());
    deflate(&_deflate, Z_FINISH);
    curl_easy_setopt(_curl, CURLOPT_POSTFIELDS, _body.data());
    curl_easy_setopt(_curl, CURLOPT_POSTFIELDSIZE, static_cast<long>(_deflate.total_out));
    long status = 0;
    const CURLcode code = curl_easy_perform(_curl);
    curl_easy_getinfo(_curl, CURLINFO_RESPONSE_CODE, &status);
    if (code == CURLE_OK && status == 200) return;
    std::fprintf(stderr, "bare: a post failed: %s, status %ld\n", curl_easy_strerror(code), status);
    std::exit(1);
  }

 private:
  CURL* const _curl;
  curl_slist* _headers = nullptr;
  z_stream _deflate{};
  std::string _body;
};

class Message {
 public:
  explicit Message(std::string_view constants) : _constants(constants) {}

  bool empty() const { return _events == 0; }
  void add(std::string_view frame) {
    if (empty()) begin();
    _writer.StartObject();
    while (!frame.empty()) {
      const char type = takeBare<char>(frame);
      const std::string_view key = takeBareText(frame, takeBare<std::uint8_t>(frame));
      _writer.Key(key.data(), static_cast<rapidjson::SizeType>(key.size()));
      if (type == 'i') {
        _writer.Int64(takeBare<std::int64_t>(frame));
      } else if (type == 'r') {
        _writer.Double(takeBare<double>(frame));
      } else {
        const std::string_view text = takeBareText(frame, takeBare<BareTextLength>(frame));
        _writer.String(text.data(), static_cast<rapidjson::SizeType>(text.size()));
      }
    }
    const double now = secondsNow();
    _writer.Key("_eventNumber");
    _writer.Int64(++_number);
    _writer.Key("_clientTS");
    _writer.Double(now);
    _writer.Key("eventTime");
    _writer.Double(now);
    _buffer.Put(',');
    std::memcpy(_buffer.Push(_constants.size()), _constants.data(), _constants.size());
    _writer.EndObject();
    ++_events;
  }
  // The message, for as long as nothing else is done to it.
  std::string_view end() {
    _writer.EndArray();
    _writer.EndObject();
    _events = 0;
    return {_buffer.GetString(), _buffer.GetSize()};
  }

 private:
  void begin() {
    _buffer.Clear();
    _writer.Reset(_buffer);
    _writer.StartObject();
    _writer.Key("postTime");
    _writer.Double(secondsNow());
    _writer.Key("clientId");
    _writer.String("9f1c2a44-77d0-4c1e-8b3a-000000000000");
    _writer.Key("events");
    _writer.StartArray();
  }

  const std::string_view _constants;
  rapidjson::StringBuffer _buffer;
  rapidjson::Writer<rapidjson::StringBuffer> _writer{_buffer};
  std::int64_t _number = 0;
  int _events = 0;
};

int run(const char* url, const char* caFile, const char* constants) {
  Poster poster(url, caFile);
  Message message(constants);
  std::vector<char> buffer(std::size_t{64} << 10);
  std::size_t filled = 0;
  double before = 0;
  for (;;) {
    const ssize_t got = read(STDIN_FILENO, buffer.data() + filled, buffer.size() - filled);
    if (got <= 0) break;
    if (before == 0) before = cpuMicros();
    filled += static_cast<std::size_t>(got);
    std::string_view rest(buffer.data(), filled);
    while (rest.size() >= sizeof(BareLength)) {
      std::string_view frame = rest;
      const auto length = takeBare<BareLength>(frame);
      if (frame.size() < length) break;
      if (length > 0) message.add(frame.substr(0, length));
      if (length == 0 && !message.empty()) poster.post(message.end());
      rest = frame.substr(length);
    }
    filled = rest.size();
    std::memmove(buffer.data(), rest.data(), filled);
  }
  if (!message.empty()) poster.post(message.end());
  std::printf("%.0f\n", cpuMicros() - before);
  return 0;
}

}  // namespace
}  // namespace corvid::bench

int main(int argc, char** argv) {
  if (argc == 4) return corvid::bench::run(argv[1], argv[2], argv[3]);
  std::fputs("usage: bare URL CA-FILE CONSTANTS < EVENTS\n", stderr);
  return 64;
}
