// An HTTPS sink that is not the bottleneck: nginx from Debian, answering 200.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

#include "bench/MeasuredProcess.h"
#include "tools/lab/TLSIdentity.h"

namespace corvid::bench {

class NginxSink {
 public:
  // Whether a connection is kept for the next post.
  enum class Connections { kept, eachItsOwn };

  // Configuration, log and pid file stand in `folder`. std::runtime_error where nginx is missing or
  // does not come up.
  NginxSink(const std::string& folder, const lab::TLSCertificate& certificate,
            Connections connections);

  std::string url(const std::string& path) const;
  struct Received {
    std::size_t requests = 0;
    std::size_t bytes = 0;  // of the requests with their headers, before TLS
  };
  // What has arrived and was answered, from the access log.
  Received received() const;

 private:
  const std::string _folder;
  const std::uint16_t _port;
  std::unique_ptr<MeasuredProcess> _process;
};

}  // namespace corvid::bench
