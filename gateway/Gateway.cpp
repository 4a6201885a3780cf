#include "gateway/Gateway.h"

#include <algorithm>
#include <thread>
#include <utility>

namespace corvid::fleet {

Result<std::shared_ptr<const InForce>> readInForce(const Options& options) {
  auto read = std::make_shared<InForce>();
  if (!options.config.empty()) {
    Result<Settings> settings = readSettings(options.config);
    if (!settings) return settings.failure();
    read->settings = std::move(settings).value();
  }
  for (const std::string& proxy : read->settings.proxies)
    if (const auto range = AddressRange::parse(proxy)) read->proxies.push_back(*range);
  if (!options.certificate.empty()) {
    Result<TLS> tls = readTLS(options.certificate, options.key);
    if (!tls) return tls.failure();
    read->tls = std::move(tls).value();
  }
  return std::shared_ptr<const InForce>(std::move(read));
}

Gateway::Gateway(const Options& options, std::shared_ptr<const InForce> inForce, LogPublisher& log)
    : _shared(log, options.memory) {
  _shared.hold = options.hold;
  _shared.whenFull = options.whenFull;
  if (!options.uploads.empty()) _shared.uploads = std::make_unique<UploadStore>(options.uploads);
  constexpr unsigned mostByItself = 8;
  const std::size_t usual = std::clamp(std::thread::hardware_concurrency(), 1u, mostByItself);
  std::vector<Worker*> workers;
  for (std::size_t i = 0; i < (options.threads ? options.threads : usual); ++i)
    workers.push_back(_workers.emplace_back(std::make_unique<Worker>(_shared, inForce)).get());
  _devices = std::make_shared<Listener>(options.listen, Role::devices, workers);
  _monitors = std::make_shared<Listener>(options.monitor, Role::monitors, workers);
  _devices->start();
  _monitors->start();
  _running = _workers.size();
  for (const auto& worker : _workers)
    worker->start([this] {
      const MutexLock lock(_mutex);
      --_running;
      _ended.notify_all();
    });
}

Gateway::~Gateway() {
  for (const auto& worker : _workers) worker->abandon();
  // Their acceptors belong to a worker's loop.
  _devices.reset();
  _monitors.reset();
  _workers.clear();
}

void Gateway::setInForce(const std::shared_ptr<const InForce>& inForce) {
  for (const auto& worker : _workers) worker->setInForce(inForce);
}

void Gateway::stop() {
  _devices->stop();
  _monitors->stop();
  for (const auto& worker : _workers) worker->stop();
}

bool Gateway::awaitEnd(std::chrono::milliseconds timeout) {
  const auto deadline = std::chrono::steady_clock::now() + timeout;
  const MutexLock lock(_mutex);
  while (_running > 0)
    if (_ended.wait_until(_mutex, deadline) == std::cv_status::timeout) return _running == 0;
  return true;
}

}  // namespace corvid::fleet
