#include "gateway/Options.h"

#include <algorithm>
#include <cstdint>
#include <utility>

#include "base/CommandLine.h"
#include "gateway/http/Endpoint.h"

namespace corvid::fleet {

namespace {

// An option that takes one of a few words.
template <class T>
void addChoice(CLI::App& app, const std::string& name, T& target,
               const std::vector<std::pair<std::string, T>>& choices, const std::string& help) {
  std::string words;
  for (const auto& [word, meaning] : choices) words += (words.empty() ? "" : "|") + word;
  const auto choose = [&target, choices, name, words](const std::string& given) {
    const auto found = std::ranges::find(choices, given, &std::pair<std::string, T>::first);
    if (found == choices.end())
      throw CLI::ValidationError(name, fmt::format("takes {}, not \"{}\"", words, given));
    target = found->second;
  };
  app.add_option_function<std::string>(name, choose, help)->type_name(words);
}

void addAddress(CLI::App& app, const std::string& name, std::string& target,
                const std::string& help) {
  app.add_option(name, target, help)
      ->type_name("ADDRESS:PORT")
      ->check(CLI::Validator(
          [](const std::string& text) {
            return endpointFrom(text)
                       ? std::string()
                       : fmt::format("takes ADDRESS:PORT, an IPv6 address in brackets, not \"{}\"",
                                     text);
          },
          ""));
}

// "20" or "20s".
void addSeconds(CLI::App& app, const std::string& name, std::chrono::seconds& target, int most,
                const std::string& help) {
  const auto take = [&target, name, most](const std::string& text) {
    const std::string_view number(text.data(), text.size() - (text.ends_with('s') ? 1 : 0));
    const auto seconds = numberFrom<int>(number);
    if (!seconds || *seconds < 0 || *seconds > most)
      throw CLI::ValidationError(
          name, fmt::format("takes seconds from 0 to {}, such as 20s, not \"{}\"", most, text));
    target = std::chrono::seconds(*seconds);
  };
  app.add_option_function<std::string>(name, take, help)->type_name("SECONDS");
}

}  // namespace

std::variant<Options, int> readOptions(std::vector<std::string> arguments) {
  Options options;
  CLI::App app(
      "Receives the posts, log data and files of a fleet of devices, and puts the former\n"
      "into a replicated log.",
      "corvid-gateway");
  addCommonOptions(app, "corvid-gateway " CORVID_VERSION);
  addAddress(app, "--listen", options.listen, "Where devices or proxies connect (127.0.0.1:8470)");
  addAddress(app, "--monitor", options.monitor,
             "Where /metrics and /healthz are asked (127.0.0.1:8471)");
  // By its variable too: a command line is everybody's to read, and this has a password.
  app.add_option("--log-url", options.log, "Where the replicated log is")
      ->type_name("URL")
      ->envname("CORVID_LOG_URL");
  addFolder(app, "--uploads", options.uploads, "Store files of clients here (none are taken)");
  app.add_option("--config", options.config, "File of limits, which SIGHUP has read again")
      ->type_name("FILE");
  CLI::Option* const certificate =
      app.add_option("--certificate", options.certificate, "PEM file of a chain: speak TLS")
          ->type_name("FILE");
  CLI::Option* const key =
      app.add_option("--key", options.key, "PEM file of its key")->type_name("FILE");
  certificate->needs(key);
  key->needs(certificate);
  addSeconds(app, "--hold", options.hold, 3600,
             "Hold a post so long for a log that does not answer (20s)");
  addChoice<int>(app, "--when-full", options.whenFull, {{"503", 503}, {"429", 429}},
                 "Status of what was held too long, or found no memory (503,\n"
                 "which switches a device's backend off for a while)");
  std::int64_t mebibytes = 256;
  addNumber(app, "--memory", mebibytes, 16, 1 << 20,
            "Mebibytes that requests under way may take together (256)");
  std::int64_t threads = 0;
  addNumber(app, "--threads", threads, 1, 256,
            "Threads that serve connections (one a processor, at most 8)");
  addSeconds(app, "--stop-timeout", options.stopTimeout, 3600,
             "At SIGTERM wait so long for requests under way (30s)");
  addChoice<LogLevel>(app, "--log-level", options.logLevel,
                      {{"error", LogLevel::error},
                       {"warning", LogLevel::warning},
                       {"info", LogLevel::info},
                       {"debug", LogLevel::debug}},
                      "Log lines of this level and more severe ones (info)");
  app.add_flag("--check-config", options.checksConfig,
               "Check the options and every file that they name, and exit");
  if (const auto status = readCommandLine(app, std::move(arguments))) return *status;
  options.memory = static_cast<std::size_t>(mebibytes) * limits::mebibyte;
  options.threads = static_cast<std::size_t>(threads);
  return options;
}

}  // namespace corvid::fleet
