#include "bench/FleetBody.h"

#include <fmt/format.h>

#include <iterator>

namespace corvid::bench {

namespace {

void appendEvent(std::string& body, const FleetEvents& events, std::uint64_t sequence) {
  const std::uint64_t look = events.look + sequence;
  const double time = static_cast<double>(events.start) + events.sinceStart;
  fmt::format_to(
      std::back_inserter(body),
      R"({{"action":"play-{:010}","title":"episode {:028}","position":{:.3f},"sequence":{},"bytes":{},)"
      R"("account":"{:064x}","_startTS":{},"_sender":"ZH","_clientVersion":3,)"
      R"("_sessionID":"{}","_eventNumber":{},"_method":7,"_status":{},)"
      R"("_clientTS":{:.6f},"eventTime":{:.6f},"_productFamily":"Workbench",)"
      R"("_productModel":"Workbench1,1","_osVersion":"12","_build":"6.1.0-28-amd64","_internal":0,)"
      R"("_reportVers":"8.1","_timezoneOffset":0,"_clientName":"Player","_serviceName":"Evening Film"}})",
      look * 2654435761u % 9'999'999'999u, look * 40503u, static_cast<double>(look % 911) / 3,
      sequence, look * 37, look * 0x9E3779B97F4A7C15u, events.start, events.session,
      sequence % 65536, look % 4 + 2, time, time);
}

}  // namespace

std::string fleetBody(const FleetEvents& events) {
  std::string body =
      fmt::format(R"({{"postTime":{:.6f},"clientId":"{}","events":[)",
                  static_cast<double>(events.start) + events.sinceStart, events.client);
  for (int i = 0; i < events.count; ++i) {
    if (i > 0) body += ',';
    appendEvent(body, events, events.first + static_cast<std::uint64_t>(i));
  }
  return body += "]}";
}

std::string postRequest(std::string_view target, std::string_view host, std::string_view headers,
                        std::string_view packed) {
  std::string request = fmt::format(
      "POST {} HTTP/1.1\r\nHost: {}\r\n{}X-CVD-Client-Name: Player\r\n"
      "X-CVD-Service-Name: Evening Film\r\nUser-Agent: Corvid/8.1 (Workbench1,1; 12)\r\n"
      "X-CVD-Client-Version: 3\r\nX-CVD-Sender: ZH\r\nAccept: application/json\r\n"
      "Content-Type: application/json\r\nContent-Encoding: gzip\r\nContent-Length: {}\r\n\r\n",
      target, host, headers, packed.size());
  return request.append(packed);
}

}  // namespace corvid::bench
