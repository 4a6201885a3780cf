// nginx from Debian's package before gateways, with the configuration that is shipped as an
// example.
#pragma once

#include <signal.h>

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "tests/support/ChildProcess.h"
#include "tests/support/Scratch.h"
#include "tools/lab/TLSIdentity.h"

namespace corvid::fleet {

// packaging/examples/nginx-gateway.conf at a free port of this machine's loopback, under a
// certificate of an authority of its own. Everything stands in a scratch folder, and ends with the
// object or with the thread that made it. std::runtime_error where it does not come up. One thread.
class ScratchNginx {
 public:
  // Passes posts on to gateways at these ports of this machine, which need not be there yet.
  // The certificate is that of `identity` where there is one.
  explicit ScratchNginx(const std::vector<std::uint16_t>& gateways,
                        const lab::TLSIdentity* identity = nullptr);
  ~ScratchNginx();

  std::uint16_t port() const { return _port; }
  // "https://localhost:PORT" and the path.
  std::string url(const std::string& path) const;
  // The authority's certificate, for clients to trust.
  std::string caFile() const { return _identity.caFile(); }

  // SIGHUP: new workers take connections from now on, old ones finish their requests. Returns at
  // once.
  void reload() { _process->signal(SIGHUP); }
  bool isRunning() { return _process->isRunning(); }
  // The master and its workers.
  std::vector<pid_t> processes() const;
  // The last lines that it wrote, for messages of what went wrong.
  std::string lastWords() const;

 private:
  const ScratchFolder _scratch;
  const lab::TLSIdentity _identity;
  const std::uint16_t _port;
  std::unique_ptr<ChildProcess> _process;
};

}  // namespace corvid::fleet
