// The stage of the benchmarks: a root, a storebag server, two sinks, the daemon under test.
#pragma once

#include <array>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "bench/MeasuredProcess.h"
#include "bench/NginxSink.h"
#include "bench/Workload.h"
#include "tools/lab/HTTPServer.h"
#include "tools/lab/LabRoot.h"
#include "tools/lab/StorebagServer.h"
#include "tools/lab/StorebagSigner.h"
#include "tools/lab/TLSIdentity.h"

namespace corvid::bench {

// Client types: what they post goes to nginx, or to the sink in this process.
inline constexpr int nginxClient = 5;  // storebag "lumen"
inline constexpr int localClient = 8;  // storebag "orrery"
// The same to nginx, by the level of a chain.
inline constexpr std::array<int, 8> chainClients{nginxClient, 10, 12, 16, 17, 6, 7, 9};

// What the sink in this process got.
struct Arrival {
  Clock::time_point time;
  std::string body;
};

class Bench {
 public:
  explicit Bench(const std::string& folder,
                 NginxSink::Connections connections = NginxSink::Connections::kept);

  // A fresh daemon; it is ready when the first connection was accepted. `command` is the program,
  // or one that runs it, and options.
  std::unique_ptr<MeasuredProcess> startDaemon(std::vector<std::string> command);
  // From the start of the program to its first accepted connection, of the last daemon.
  double readyMillis() const { return _readyMillis; }

  const NginxSink& nginx() const { return *_nginx; }
  std::string caFile() const { return _identity.caFile(); }
  std::string rootFolder() const { return _folder; }
  std::vector<Arrival> takeArrivals();

 private:
  void writeStorebag(const std::string& name, const std::string& url, int hierarchy = 0) const;

  const std::string _folder;
  const lab::LabRoot _root;
  const lab::TLSIdentity _identity;
  const lab::StorebagSigner _signer;
  const lab::StorebagServer _storebags;
  std::unique_ptr<NginxSink> _nginx;
  std::mutex _mutex;
  std::vector<Arrival> _arrivals;
  std::unique_ptr<lab::HTTPServer> _localSink;
  std::unique_ptr<lab::HTTPServer> _storebagServer;
  double _readyMillis = 0;
};

}  // namespace corvid::bench
