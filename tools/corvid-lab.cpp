// corvid-lab: every server that corvidd needs, for one machine.
#include <pthread.h>
#include <signal.h>

#include <cstdint>
#include <cstdio>
#include <exception>
#include <filesystem>
#include <fstream>
#include <string>
#include <utility>
#include <vector>

#include "base/CommandLine.h"
#include "platform/data/JSON.h"
#include "tools/CommandShapes.h"
#include "tools/lab/Lab.h"
#include "tools/lab/Received.h"
#include "tools/lab/conform/Conformance.h"

namespace {

constexpr const char* description =
    "Plays every server that corvidd talks to: a storebag server that signs DIR/lab/storebags/*.plist,\n"
    "a collector of events, log data and files, both under a certificate authority of its own, and a\n"
    "dashboard that acknowledges packets. Writes below DIR what `corvidd --root DIR` needs, prints one\n"
    "line of JSON with its addresses when it is ready, and appends what it receives to\n"
    "DIR/lab/received.jsonl. With --web, shows it all on a page for a browser at the \"web\" address and\n"
    "plans faults there. Ends on SIGINT or SIGTERM.\n"
    "\n"
    "With --conform it is the other side: it posts what devices post, and what nobody should, to any\n"
    "collector, and says which rules for collectors that breaks.";

constexpr const char* footer =
    "POST a JSON object to the \"control\" address to plan a fault:\n"
    "{\"server\":\"events\",\"status\":503,\"times\":2} (also body, delay, redirect, cutBodyAfter,\n"
    "cutHeadAfter, endless, silent, corrupt, truncate; servers: storebags, events, realtime, logData,\n"
    "upload); for packets {\"server\":\"dashboard\",\"packets\":{\"drop\":0.3},\"acknowledgements\":{},\n"
    "\"seed\":1} (also duplicate, corrupt, reorder, late, from 0 to 1; delay in seconds).\n"
    "times is 1 unless given, -1 lasts until told otherwise.\n"
    "\n"
    "Exit status: 0 done, 1 it did not work (standard error says why) or a collector breaks a rule,\n"
    "64 wrong usage.";

// A lab writes keys, entitlements and hosts that the machine's own daemon would believe.
std::string faultOfRoot(const std::string& root) {
  std::error_code error;
  const bool isMachines = std::filesystem::weakly_canonical(root, error) == "/";
  return isMachines ? "takes a folder of its own, not the machine's root" : "";
}

// Prints what stands in received.jsonl.
int show(const std::string& root) {
  std::ifstream received(root + "/lab/received.jsonl");
  if (!received) {
    std::fprintf(stderr, "corvid-lab: %s holds nothing that a lab received\n", root.c_str());
    return 1;
  }
  for (std::string line; std::getline(received, line);) {
    const corvid::Result<corvid::Value> entry = corvid::parseJSON(line);
    if (entry && entry.value().dictionary())
      std::fputs(corvid::lab::summary(*entry.value().dictionary()).c_str(), stdout);
  }
  return 0;
}

// Serves until somebody ends it.
int serve(const std::string& root, const corvid::lab::Lab::Options& options) {
  // Blocked before the servers' threads exist, so that only sigwait below receives them.
  sigset_t ending;
  sigemptyset(&ending);
  sigaddset(&ending, SIGINT);
  sigaddset(&ending, SIGTERM);
  pthread_sigmask(SIG_BLOCK, &ending, nullptr);
  signal(SIGPIPE, SIG_IGN);

  const corvid::lab::Lab lab(root, options);
  std::printf("%s\n", corvid::writeJSON(lab.addresses())->c_str());
  std::fflush(stdout);
  int signalNumber = 0;
  sigwait(&ending, &signalNumber);
  return 0;
}

// Tries somebody's collector, a line for each rule.
int conform(const corvid::lab::conform::Collector& collector) {
  signal(SIGPIPE, SIG_IGN);
  const auto print = [](const std::string& line) {
    std::printf("%s\n", line.c_str());
    std::fflush(stdout);
  };
  const auto summary = corvid::lab::conform::tryCollector(
      collector, [&](const corvid::lab::conform::Finding& found) { print(found.line); });
  print(summary.text());
  return summary.broken == 0 ? 0 : 1;
}

int run(std::vector<std::string> arguments) {
  CLI::App app(description, "corvid-lab");
  corvid::addCommonOptions(app, "corvid-lab " CORVID_VERSION);
  app.footer(footer);
  std::string root;
  corvid::lab::Lab::Options options;
  bool shows = false;
  CLI::Option* const rootOption =
      corvid::addFolder(app, "--root", root, "Folder that the daemon's files lie below")
          ->check(CLI::Validator(faultOfRoot, ""));
  const auto addPort = [&](const char* name, std::uint16_t& port, const char* help) {
    corvid::addNumber(app, name, port, 0, 65535, help);
  };
  addPort("--storebag-port", options.storebagPort, "Port of the storebag server (a free one)");
  addPort("--report-port", options.reportPort, "Port of the collector (a free one)");
  addPort("--control-port", options.controlPort, "Port that faults are planned at (a free one)");
  addPort("--dashboard-port", options.dashboardPort, "UDP port of the dashboard (a free one)");
  corvid::addNumber(app, "--max-age", options.maxAge, 0, 1'000'000'000,
                    "Seconds that a storebag may be kept (86400)");
  app.add_flag("--web", options.hasPage, "Serve a page to watch the lab with");
  addPort("--web-port", options.pagePort, "Port of that page, which is then served (a free one)");
  app.add_flag("--show", shows, "Print what has been received so far, for people, and exit");
  std::string url, paths, caFile, shell;
  CLI::Option* const conformOption =
      app.add_option("--conform", url, "Say which rules the collector at this URL breaks, and exit")
          ->type_name("URL")
          ->excludes(rootOption);
  app.add_option("--paths", paths,
                 "What that collector takes, and where below the URL\n"
                 "(events=/v1/events,realtime=/v1/realtime,uploads=/v1/uploads,logs=/v1/logs)")
      ->type_name("NAME=PATH,...")
      ->needs(conformOption);
  app.add_option("--ca", caFile, "PEM file of whom to trust for that collector (the system's)")
      ->type_name("FILE")
      ->needs(conformOption);
  CLI::App& completion = *app.add_subcommand(
      "completion", "Print the completion script of a shell: bash, zsh or fish");
  corvid::addCommonOptions(completion, "corvid-lab " CORVID_VERSION);
  completion.add_option("SHELL", shell, "bash, zsh or fish")->required()->type_name("");
  corvid::lab::conform::Collector collector;
  app.callback([&] {
    if (root.empty() && url.empty() && shell.empty()) throw CLI::RequiredError("--root");
    if (url.empty()) return;
    try {
      collector = corvid::lab::conform::collectorAt(url, paths, caFile);
    } catch (const corvid::tools::InputError& error) {
      throw CLI::ValidationError("--conform", error.what());
    }
  });
  if (const auto status = corvid::readCommandLine(app, std::move(arguments))) return *status;
  if (!shell.empty()) return corvid::tools::printCompletion(shell, app);
  if (!url.empty()) return conform(collector);
  options.hasPage |= app.count("--web-port") > 0;
  return shows ? show(root) : serve(root, options);
}

}  // namespace

int main(int argc, char** argv) {
  try {
    return run({argv + (argc > 0), argv + argc});
  } catch (const std::exception& error) {
    std::fprintf(stderr, "corvid-lab: %s\n", error.what());
    return 1;
  }
}
