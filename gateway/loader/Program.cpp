#include "gateway/loader/Program.h"

#include <fmt/format.h>
#include <signal.h>

#include <functional>
#include <thread>
#include <utility>

#include "base/CommandLine.h"
#include "base/Log.h"
#include "gateway/ServiceManager.h"
#include "gateway/StandardErrorLog.h"
#include "gateway/loader/Loader.h"
#include "gateway/loader/Monitor.h"
#include "gateway/loader/Options.h"
#include "gateway/loader/Schema.h"
#include "gateway/log/LogURL.h"

namespace corvid::fleet {

namespace {

int checkConfig(const LoaderOptions& options) {
  int faults = 0;
  const auto check = [&](const char* option, const std::function<void()>& use) {
    try {
      use();
    } catch (const std::exception& fault) {
      fmt::print("WRONG {}: {}\n", option, fault.what());
      ++faults;
    }
  };
  check("--log-url", [&] { makeLogReader(options.log, {}); });
  check("--database", [&] { Database(options.database).run("SELECT 1"); });
  if (faults == 0) fmt::print("ok\n");
  return faults == 0 ? 0 : 1;
}

int removeRows(const LoaderOptions& options) {
  Database database(options.database);
  fmt::print("{} rows are removed\n", removeClient(database, options.removedClient));
  return 0;
}

int run(const LoaderOptions& options) {
  sigset_t ends;
  sigemptyset(&ends);
  sigaddset(&ends, SIGTERM);
  sigaddset(&ends, SIGINT);
  pthread_sigmask(SIG_BLOCK, &ends, nullptr);
  signal(SIGPIPE, SIG_IGN);

  LoaderLedger ledger;
  const Monitor monitor(options.monitor, {.metrics = [&] { return ledger.metrics(); },
                                          .isReady = [&] { return ledger.isReading(); }});
  Loader loader([&] { return makeLogReader(options.log, options.streams); },
                [&] { return std::make_unique<Store>(options.database); },
                {.batch = static_cast<std::size_t>(options.batch),
                 .retainedDays = static_cast<int>(options.retainedDays)},
                ledger);
  std::jthread thread([&](const std::stop_token& stop) { loader.run(stop); });
  notifyManager("READY=1");
  int signal = 0;
  sigwait(&ends, &signal);
  notifyManager("STOPPING=1");
  thread.request_stop();
  thread.join();
  logInfo("loader: {} received, {} stored, {} repeated, {} rejected, {} held", ledger.received(),
          ledger.stored(), ledger.repeated(), ledger.rejected(), ledger.held());
  return 0;
}

}  // namespace

int runLoader(std::vector<std::string> arguments) {
  const auto read = readLoaderOptions(std::move(arguments));
  if (const int* const status = std::get_if<int>(&read)) return *status;
  const auto& options = std::get<LoaderOptions>(read);
  if (options.database.empty() || (options.log.empty() && options.removedClient.empty())) {
    fmt::print(
        stderr,
        "corvid-loader: --log-url and --database, or CORVID_LOG_URL and CORVID_DATABASE, are needed\n");
    return exitUsage;
  }
  if (options.checksConfig) return checkConfig(options);
  if (!options.removedClient.empty()) return removeRows(options);
  StandardErrorLog log("corvid-loader");
  installLog(&log, options.logLevel);
  const int status = run(options);
  installLog(nullptr, LogLevel::error);
  return status;
}

}  // namespace corvid::fleet
