#include "gateway/loader/Options.h"

#include <map>
#include <utility>

#include "base/CommandLine.h"

namespace corvid::fleet {

std::variant<LoaderOptions, int> readLoaderOptions(std::vector<std::string> arguments) {
  LoaderOptions options;
  CLI::App app("Takes the messages of a fleet from the replicated log into PostgreSQL.",
               "corvid-loader");
  addCommonOptions(app, "corvid-loader " CORVID_VERSION);
  // By their variables too: a command line is everybody's to read, and these have passwords.
  app.add_option("--log-url", options.log, "Where the replicated log is")
      ->type_name("URL")
      ->envname("CORVID_LOG_URL");
  app.add_option("--database", options.database, "Connection string or URL of the database")
      ->type_name("TARGET")
      ->envname("CORVID_DATABASE");
  app.add_option("--streams", options.streams, "Streams that are read (events,logs)")
      ->type_name("NAMES")
      ->delimiter(',')
      ->expected(1);
  app.add_option("--monitor", options.monitor,
                 "Where /metrics and /healthz are asked (127.0.0.1:8472)")
      ->type_name("ADDRESS:PORT");
  addNumber(app, "--batch", options.batch, 1, 10000, "Messages in one transaction, at most (500)");
  addNumber(app, "--retain-days", options.retainedDays, 1, 36500,
            "Drop what was received more days ago (nothing is dropped)");
  app.add_option("--remove-client", options.removedClient,
                 "Remove every row of this client identifier, and exit")
      ->type_name("ID");
  const std::map<std::string, LogLevel> levels{{"error", LogLevel::error},
                                               {"warning", LogLevel::warning},
                                               {"info", LogLevel::info},
                                               {"debug", LogLevel::debug}};
  app.add_option("--log-level", options.logLevel, "Log lines of this level and more severe (info)")
      ->type_name("error|warning|info|debug")
      ->transform(CLI::CheckedTransformer(levels).description(""));
  app.add_flag("--check-config", options.checksConfig,
               "Ask the log and the database that the options name, and exit");
  if (const auto status = readCommandLine(app, std::move(arguments))) return *status;
  return options;
}

}  // namespace corvid::fleet
