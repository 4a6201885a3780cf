#include "bench/Bench.h"

#include <fmt/format.h>
#include <sys/socket.h>
#include <unistd.h>

#include <fstream>
#include <stdexcept>

#include "base/Descriptor.h"
#include "base/UnixAddress.h"
#include "platform/Paths.h"
#include "platform/data/PropertyList.h"
#include "tests/support/Waiting.h"

namespace corvid::bench {

namespace {

bool acceptsConnection(const std::string& path) {
  const Descriptor probe(socket(AF_UNIX, SOCK_STREAM, 0));
  return UnixAddress(path).connect(probe.get()) == 0;
}

}  // namespace

Bench::Bench(const std::string& folder, NginxSink::Connections connections)
    : _folder(folder),
      _root(folder),
      _identity(_root.tlsFolder()),
      _signer(_root.signingKeyFile()),
      _storebags(_root.storebagFolder(), _signer, 86400,
                 [](std::string_view name) { return std::string(name); }) {
  _root.writeFiles(_signer.publicKeyDER());
  _nginx = std::make_unique<NginxSink>(folder, _identity.server(), connections);
  _localSink = std::make_unique<lab::HTTPServer>(
      [this](const lab::Request& request) {
        const Clock::time_point now = Clock::now();
        const std::lock_guard lock(_mutex);
        _arrivals.push_back({now, request.body});
        return lab::Answer{};
      },
      lab::HTTPServer::Options{_identity.server(), 0});
  _storebagServer = std::make_unique<lab::HTTPServer>(
      [this](const lab::Request& request) { return _storebags.answer(request); },
      lab::HTTPServer::Options{_identity.server(), 0});
  _root.writeDeployment(_storebagServer->port(), _identity.caFile());
  writeStorebag("lumen", _nginx->url("/events"));
  writeStorebag("orrery", fmt::format("https://localhost:{}/events", _localSink->port()));
  int level = 0;
  for (const char* name : {"quill", "ledger", "folio", "reel", "tessel", "parlor", "cadence"})
    writeStorebag(name, _nginx->url("/events"), ++level);
}

void Bench::writeStorebag(const std::string& name, const std::string& url, int hierarchy) const {
  Array everyLetter;
  for (char letter = 'A'; letter <= 'Z'; ++letter) everyLetter.push_back(std::string(1, letter));
  const Dictionary entry{{"post_url", url},
                         {"hierarchy", hierarchy},
                         {"expedite", 0},
                         {"override_dnu", 1},
                         {"event_threshold", 1000000},  // flushes are asked for
                         {"locale_whitelist", everyLetter},
                         {"filters", Array{Dictionary{{"key", "secret"}, {"action", "remove"}},
                                           Dictionary{{"key", "account"}, {"action", "sha256"}}}},
                         {"sampling_threshold", 1.0}};
  const Dictionary section{{"httpPost", Dictionary{{"clients", Array{entry}}}}};
  const Dictionary storebag{{"version", "1"}, {"release", section}, {"halcyon_internal", section}};
  std::ofstream(fmt::format("{}/{}.plist", _root.storebagFolder(), name))
      << writeXMLPropertyList(Value(storebag));
}

std::unique_ptr<MeasuredProcess> Bench::startDaemon(std::vector<std::string> command) {
  command.insert(command.end(), {"--root", _folder, "--log", "stderr", "--log-level", "warning"});
  auto daemon = std::make_unique<MeasuredProcess>(command, _folder + "/corvidd.log");
  const std::string socketPath = Paths(_folder).socket;
  const auto hasCome = [&] { return acceptsConnection(socketPath) || !daemon->isRunning(); };
  if (!waitUntil(hasCome, patience, std::chrono::microseconds(100)) || !daemon->isRunning())
    throw std::runtime_error("corvidd did not come up; see " + _folder + "/corvidd.log");
  _readyMillis =
      std::chrono::duration<double, std::milli>(Clock::now() - daemon->started()).count();
  return daemon;
}

std::vector<Arrival> Bench::takeArrivals() {
  const std::lock_guard lock(_mutex);
  return std::exchange(_arrivals, {});
}

}  // namespace corvid::bench
