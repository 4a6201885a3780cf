#include "bench/NginxSink.h"

#include <fmt/format.h>

#include <fstream>
#include <stdexcept>
#include <thread>

#include "tests/support/Loopback.h"
#include "tests/support/Waiting.h"

namespace corvid::bench {

NginxSink::NginxSink(const std::string& folder, const lab::TLSCertificate& certificate,
                     Connections connections)
    : _folder(folder), _port(freePorts(1).front()) {
  const std::string configuration = _folder + "/nginx.conf";
  std::ofstream(configuration) << fmt::format(
      R"(daemon off; master_process off; error_log {0}/nginx-error.log; pid {0}/nginx.pid;
events {{ worker_connections 512; }}
http {{
  log_format sink '$request_length';
  access_log {0}/nginx-access.log sink buffer=64k flush=100ms;
  client_body_temp_path {0}/nginx-body; proxy_temp_path {0}/nginx-t1; fastcgi_temp_path {0}/nginx-t2;
  uwsgi_temp_path {0}/nginx-t3; scgi_temp_path {0}/nginx-t4;
  client_body_buffer_size 1m; client_max_body_size 64m;
  keepalive_requests 100000000; keepalive_timeout {4}; http2_max_concurrent_streams 512;
  server {{
    listen 127.0.0.1:{1} ssl http2;
    ssl_certificate {2}; ssl_certificate_key {3};
    location / {{ return 200; }}
  }}
}}
)",
      _folder, _port, certificate.certificateFile, certificate.keyFile,
      connections == Connections::kept ? "3600s" : "0");
  _process = std::make_unique<MeasuredProcess>(
      std::vector<std::string>{"nginx", "-c", configuration, "-p", _folder, "-e",
                               _folder + "/nginx-error.log"},
      _folder + "/nginx-stderr.log");
  if (waitUntil([&] { return isOpen(_port) || !_process->isRunning(); }) && _process->isRunning())
    return;
  throw std::runtime_error("nginx did not come up; is nginx-light installed? See " + _folder +
                           "/nginx-error.log");
}

std::string NginxSink::url(const std::string& path) const {
  return fmt::format("https://localhost:{}{}", _port, path);
}

NginxSink::Received NginxSink::received() const {
  std::this_thread::sleep_for(std::chrono::milliseconds(250));  // two flushes of the access log
  std::ifstream log(_folder + "/nginx-access.log");
  Received received;
  std::size_t length = 0;
  while (log >> length) {
    ++received.requests;
    received.bytes += length;
  }
  return received;
}

}  // namespace corvid::bench
