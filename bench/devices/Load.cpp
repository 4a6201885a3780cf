#include "bench/devices/Load.h"

#include <sys/resource.h>

#include <algorithm>
#include <boost/asio/signal_set.hpp>
#include <csignal>
#include <memory>
#include <stdexcept>
#include <vector>

#include "base/URL.h"
#include "bench/devices/Device.h"
#include "bench/devices/FleetRun.h"

namespace corvid::bench {

namespace {

namespace asio = boost::asio;

void raiseDescriptorLimit() {
  rlimit limit{};
  getrlimit(RLIMIT_NOFILE, &limit);
  limit.rlim_cur = limit.rlim_max;
  setrlimit(RLIMIT_NOFILE, &limit);
}

void takeURL(FleetRun& run) {
  const std::string& text = run.setup.url;
  run.authority = hostAndPort(text);
  run.usesTLS = text.starts_with("https://");
  const std::size_t colon = run.authority.rfind(':');
  if (colon == std::string::npos || (!run.usesTLS && !text.starts_with("http://")))
    throw std::runtime_error("\"" + text + "\" is no address of http or https");
  run.host = run.authority.substr(0, colon);
  const std::size_t path = text.find('/', text.find("//") + 2);
  run.target = path == text.npos ? "/" : text.substr(path);
  // The first address of IPv4: there are enough of them on loopback.
  asio::ip::tcp::resolver resolver(run.loop);
  run.collector =
      *resolver.resolve(asio::ip::tcp::v4(), run.host, run.authority.substr(colon + 1)).begin();
}

void takeAuthorities(FleetRun& run) {
  run.tls.set_verify_mode(asio::ssl::verify_peer);
  if (run.setup.caFile.empty())
    run.tls.set_default_verify_paths();
  else
    run.tls.load_verify_file(run.setup.caFile);
  SSL_CTX_set_mode(run.tls.native_handle(), SSL_MODE_RELEASE_BUFFERS);
}

// On average, so that not all shake hands at once.
constexpr std::chrono::milliseconds timeToConnect{1};

}  // namespace

Tally runLoad(const FleetSetup& setup) {
  FleetRun run;
  run.setup = setup;
  takeURL(run);
  takeAuthorities(run);
  raiseDescriptorLimit();
  run.tally.run = DevicePosts::newRun();
  run.tally.eventsEach = static_cast<int>(setup.events);

  asio::signal_set signals(run.loop, SIGINT, SIGTERM);
  std::vector<std::shared_ptr<Device>> devices;
  std::size_t posting = static_cast<std::size_t>(setup.devices);
  signals.async_wait([&](const auto& cancelled, int) {
    if (cancelled) return;
    run.end = Steady::now();
    for (const auto& device : devices) device->wake();
  });
  std::size_t connecting = posting;
  const auto connected = [&] {
    if (--connecting > 0) return;
    run.start = Steady::now();
    run.end = std::min(run.end, run.start + std::chrono::seconds(setup.seconds));
    for (const auto& device : devices) device->start();
  };
  for (std::size_t i = 0; i < static_cast<std::size_t>(setup.devices); ++i) {
    devices.push_back(std::make_shared<Device>(run, i, [&] {
      if (--posting == 0) signals.cancel();
    }));
    devices.back()->connect(setup.devices * timeToConnect, connected);
  }
  run.loop.run();
  run.tally.seconds = std::chrono::duration<double>(Steady::now() - run.start).count();
  return std::move(run.tally);
}

}  // namespace corvid::bench
