#include "tests/gateway/engines/Service.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <signal.h>

#include <algorithm>
#include <utility>

#include "base/Descriptor.h"
#include "tests/gateway/engines/LogCluster.h"
#include "tests/support/Scratch.h"
#include "tests/support/Waiting.h"

namespace corvid::fleet {

namespace {

// What the monitor's address answers with 200; nothing otherwise.
std::optional<std::string> ask(std::uint16_t monitor, const char* path) {
  return outputOf(
      {.command = {"curl", "-sf", "-m", "2", fmt::format("http://127.0.0.1:{}{}", monitor, path)}});
}

}  // namespace

Service::Service(std::vector<std::string> command, std::string log, std::uint16_t monitor)
    : _command(std::move(command)), _log(std::move(log)), _monitor(monitor) {}

void Service::start() {
  const Descriptor output(open(_log.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600));
  _process = std::make_unique<ChildProcess>(ChildProcess::Program{
      .command = _command, .streams = {STDIN_FILENO, output.get(), output.get()}});
}

bool Service::awaitReady(std::chrono::seconds limit) const {
  return waitUntil([&] { return !isRunning() || ask(_monitor, "/healthz"); }, limit,
                   std::chrono::milliseconds(20)) &&
         isRunning();
}

std::optional<int> Service::stop() {
  _process->signal(SIGTERM);
  return _process->waitForExit();
}

std::string Service::metrics() const { return ask(_monitor, "/metrics").value_or(""); }

std::string Service::lastWords() const {
  const std::string text = contentOf(_log);
  return text.substr(text.size() - std::min<std::size_t>(text.size(), 2000));
}

}  // namespace corvid::fleet
