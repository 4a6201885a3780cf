#include "tools/lab/conform/Device.h"

#include <fmt/format.h>

#include <array>
#include <chrono>
#include <cstdint>
#include <random>

namespace corvid::lab::conform {

namespace {

std::string madeUpID() {
  std::random_device random;
  std::array<std::uint32_t, 4> bits{};
  for (auto& each : bits) each = random();
  return fmt::format("{:08X}-{:04X}-4{:03X}-8{:03X}-{:08X}{:04X}", bits[0], bits[1] >> 16,
                     bits[1] & 0xfff, bits[2] >> 20, bits[3], bits[2] & 0xffff);
}

}  // namespace

Device::Device(const Collector& collector) : _collector(collector), _clientID(madeUpID()) {}

std::string Device::post(std::size_t events, std::string_view more) {
  const std::chrono::duration<double> now = std::chrono::system_clock::now().time_since_epoch();
  const double time = now.count();
  const auto start = static_cast<std::int64_t>(time) / 60 * 60;
  ++_posts;
  std::string body =
      fmt::format(R"({{"postTime":{:.6f},"clientId":"{}","events":[)", time, _clientID);
  for (std::size_t event = 1; event <= events; ++event) {
    if (event > 1) body += ',';
    body += fmt::format(
        R"({{"action":"play","position":12.5,"post":{0},"_startTS":{1},"_sender":"ZH",)"
        R"("_clientVersion":3,"_sessionID":"URjmgAZ/RKyN8cUmbbz2ww==","_eventNumber":{2},)"
        R"("_method":7,"_status":2,"_clientTS":{3:.6f},"eventTime":{3:.6f},)"
        R"("_productFamily":"Workbench","_productModel":"Workbench1,1","_osVersion":"12",)"
        R"("_build":"6.1.0-28-amd64","_internal":0,"_reportVers":"8.1","_timezoneOffset":0,)"
        R"("_clientName":"Player","_serviceName":"Evening Film"{4}{5}}})",
        _posts, start, event, time, more.empty() ? "" : ",", more);
  }
  return body += "]}";
}

Lines Device::postLines() {
  return {"X-CVD-Client-Name: Player",
          "X-CVD-Service-Name: Evening Film",
          "User-Agent: Corvid/8.1 (Workbench1,1; 12)",
          "X-CVD-Client-Version: 3",
          "X-CVD-Sender: ZH",
          "Accept: application/json",
          "Content-Type: application/json"};
}

std::string Device::request(std::string_view target, std::string_view body,
                            const Lines& lines) const {
  Lines all = lines;
  all.push_back(fmt::format("Content-Length: {}", body.size()));
  return head(fmt::format("POST {} HTTP/1.1", target), all).append(body);
}

std::string Device::head(std::string_view start, const Lines& lines) const {
  std::string text = fmt::format("{}\r\nHost: {}\r\n", start, _collector.authority);
  for (const std::string& line : lines) text.append(line).append("\r\n");
  return text += "\r\n";
}

}  // namespace corvid::lab::conform
