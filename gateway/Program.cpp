#include "gateway/Program.h"

#include <fmt/format.h>
#include <sys/resource.h>

#include <boost/asio/io_context.hpp>
#include <boost/asio/signal_set.hpp>
#include <csignal>
#include <cstdio>
#include <filesystem>
#include <utility>

#include "base/Log.h"
#include "gateway/Gateway.h"
#include "gateway/Options.h"
#include "gateway/ServiceManager.h"
#include "gateway/StandardErrorLog.h"

namespace corvid::fleet {

namespace {

constexpr int failed = 1;

class Logging {
 public:
  explicit Logging(LogLevel level) { installLog(&_sink, level); }
  ~Logging() { installLog(nullptr, LogLevel::error); }
  Logging(const Logging&) = delete;
  Logging& operator=(const Logging&) = delete;

 private:
  StandardErrorLog _sink{"corvid-gateway"};
};

// A descriptor a connection; the unit says how many there may be.
void raiseDescriptorLimit() {
  rlimit limit{};
  if (getrlimit(RLIMIT_NOFILE, &limit) != 0) return;
  limit.rlim_cur = limit.rlim_max;
  setrlimit(RLIMIT_NOFILE, &limit);
}

int checkConfig(const Options& options, const MakeLog& makeLog) {
  int faults = 0;
  const auto say = [&](const std::string& what) {
    fmt::print("WRONG {}\n", what);
    ++faults;
  };
  if (const auto inForce = readInForce(options); !inForce) say(inForce.failure().message);
  std::error_code error;
  if (!options.uploads.empty() && !std::filesystem::is_directory(options.uploads, error))
    say(options.uploads + " is no folder");
  try {
    makeLog(options.log);
  } catch (const std::exception& fault) {
    say(fmt::format("--log-url: {}", fault.what()));
  }
  if (faults == 0) fmt::print("ok\n");
  return faults == 0 ? 0 : failed;
}

void reload(const Options& options, Gateway& gateway) {
  const auto inForce = readInForce(options);
  if (!inForce) return logError("reload: {}; keeping what was in force", inForce.failure().message);
  gateway.setInForce(inForce.value());
  logInfo("reload: What the files say is in force");
}

// Until SIGTERM or SIGINT.
void serve(const Options& options, Gateway& gateway, boost::asio::io_context& loop,
           boost::asio::signal_set& signals) {
  bool stops = false;
  const std::function<void()> wait = [&] {
    signals.async_wait([&](const boost::system::error_code&, int signal) {
      if (signal != SIGHUP) {
        stops = true;
        return;
      }
      reload(options, gateway);
      wait();
    });
  };
  wait();
  while (!stops) loop.run_one();
}

int stop(const Options& options, Gateway& gateway, boost::asio::io_context& loop,
         boost::asio::signal_set& signals) {
  notifyManager("STOPPING=1");
  logInfo("gateway: Stopping");
  gateway.stop();
  bool isForced = false;
  signals.async_wait(
      [&](const boost::system::error_code&, int signal) { isForced = signal != SIGHUP; });
  constexpr std::chrono::milliseconds betweenLooks{20};
  const auto deadline = std::chrono::steady_clock::now() + options.stopTimeout;
  bool hasEnded = false;
  while (!(hasEnded = gateway.awaitEnd(betweenLooks)) && !isForced &&
         std::chrono::steady_clock::now() < deadline)
    loop.poll();
  const Ledger::Balance balance = gateway.balance();
  if (balance.held > 0) logWarning("gateway: Stopped with {} requests unanswered", balance.held);
  return hasEnded ? 0 : failed;
}

int run(const Options& options, const MakeLog& makeLog) {
  const auto inForce = readInForce(options);
  if (!inForce) {
    logError("gateway: {}", inForce.failure().message);
    return failed;
  }
  // Before the first thread, which would take the signals itself.
  boost::asio::io_context loop;
  boost::asio::signal_set signals(loop, SIGTERM, SIGINT, SIGHUP);
  const std::unique_ptr<LogPublisher> log = makeLog(options.log);
  Gateway gateway(options, inForce.value(), *log);
  logInfo("gateway: Serving at port {}, monitors at port {}", gateway.port(),
          gateway.monitorPort());
  notifyManager("READY=1");
  serve(options, gateway, loop, signals);
  return stop(options, gateway, loop, signals);
}

}  // namespace

int runGateway(std::vector<std::string> arguments, const MakeLog& makeLog) {
  try {
    const auto read = readOptions(std::move(arguments));
    if (const int* const status = std::get_if<int>(&read)) return *status;
    const auto& options = std::get<Options>(read);
    // A peer that is gone is an error of the write, not the end of the process.
    std::signal(SIGPIPE, SIG_IGN);
    raiseDescriptorLimit();
    if (options.checksConfig) return checkConfig(options, makeLog);
    const Logging logging(options.logLevel);
    return run(options, makeLog);
  } catch (const std::exception& error) {
    fmt::print(stderr, "corvid-gateway: {}\n", error.what());
    return failed;
  }
}

}  // namespace corvid::fleet
