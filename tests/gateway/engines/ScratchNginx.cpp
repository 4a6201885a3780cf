#include "tests/gateway/engines/ScratchNginx.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <algorithm>
#include <fstream>
#include <stdexcept>
#include <string_view>

#include "base/Descriptor.h"
#include "tests/support/Loopback.h"
#include "tests/support/Waiting.h"

namespace corvid::fleet {

namespace {

// Wherever it stands, and at least once.
void replace(std::string& text, std::string_view what, const std::string& by) {
  std::size_t at = text.find(what);
  if (at == text.npos)
    throw std::runtime_error(fmt::format("nginx-gateway.conf has no \"{}\"", what));
  for (; at != text.npos; at = text.find(what, at + by.size())) text.replace(at, what.size(), by);
}

std::string filledIn(std::uint16_t port, const lab::TLSCertificate& certificate,
                     const std::vector<std::uint16_t>& gateways) {
  constexpr std::string_view limits = " max_fails=1 fail_timeout=2s;";
  std::string text = contentOf(CORVID_EXAMPLE_NGINX);
  replace(text, "listen 443", fmt::format("listen 127.0.0.1:{}", port));
  replace(text, "/etc/ssl/certs/collector.example.com.pem", certificate.certificateFile);
  replace(text, "/etc/ssl/private/collector.example.com.key", certificate.keyFile);
  std::string servers;
  for (const std::uint16_t gateway : gateways)
    servers += fmt::format("\n  server 127.0.0.1:{}{}", gateway, limits);
  replace(text, fmt::format("\n  server 127.0.0.1:8470{0}\n  server 127.0.0.1:8480{0}", limits),
          servers);
  return text;
}

// What the example leaves to the administrator's nginx.conf.
std::string around(const std::string& folder) {
  return fmt::format(
      "daemon off;\n{0}worker_processes 2;\nworker_rlimit_nofile 65536;\npid {1}/pid;\n"
      "error_log stderr;\nevents {{ worker_connections 30000; }}\n"
      "http {{\n  client_body_temp_path {1}/body;\n  proxy_temp_path {1}/proxy;\n"
      "  fastcgi_temp_path {1}/fastcgi;\n  uwsgi_temp_path {1}/uwsgi;\n  scgi_temp_path {1}/scgi;\n"
      "  include {1}/gateways.conf;\n}}\n",
      // The workers of the superuser's would be another user's, who has no way into the folder.
      geteuid() == 0 ? "user root;\n" : "", folder);
}

}  // namespace

ScratchNginx::ScratchNginx(const std::vector<std::uint16_t>& gateways,
                           const lab::TLSIdentity* identity)
    : _identity(identity ? *identity : lab::TLSIdentity(_scratch.path("identity"))),
      _port(freePorts(1)[0]) {
  _scratch.write("gateways.conf", filledIn(_port, _identity.server(), gateways));
  const std::string configuration = _scratch.write("nginx.conf", around(_scratch.path()));
  const std::string log = _scratch.write("nginx.log", "");
  const Descriptor output(open(log.c_str(), O_WRONLY | O_APPEND | O_CLOEXEC));
  _process = std::make_unique<ChildProcess>(ChildProcess::Program{
      .command = {"/usr/sbin/nginx", "-p", _scratch.path(), "-c", configuration, "-e", "stderr"},
      .streams = {STDIN_FILENO, output.get(), output.get()},
      // Killed, it would leave its workers behind.
      .prepare = [] { prctl(PR_SET_PDEATHSIG, SIGTERM); }});
  if (!waitUntil([&] { return isOpen(_port) || !isRunning(); }) || !isRunning())
    throw std::runtime_error("nginx does not come up: " + lastWords());
}

ScratchNginx::~ScratchNginx() {
  _process->signal(SIGTERM);
  (void)_process->waitForExit(std::chrono::seconds(10));
}

std::string ScratchNginx::url(const std::string& path) const {
  return fmt::format("https://localhost:{}{}", _port, path);
}

std::vector<pid_t> ScratchNginx::processes() const {
  std::vector<pid_t> all{_process->pid()};
  std::ifstream children(fmt::format("/proc/{0}/task/{0}/children", _process->pid()));
  for (pid_t child = 0; children >> child;) all.push_back(child);
  return all;
}

std::string ScratchNginx::lastWords() const {
  const std::string text = contentOf(_scratch.path("nginx.log"));
  return text.substr(text.size() - std::min<std::size_t>(text.size(), 2000));
}

}  // namespace corvid::fleet
