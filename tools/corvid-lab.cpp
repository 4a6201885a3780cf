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
#include "tools/lab/Lab.h"
#include "tools/lab/Received.h"

namespace {

constexpr const char* description =
    "Plays every server that corvidd talks to: a storebag server that signs DIR/lab/storebags/*.plist,\n"
    "a collector of events, log data and files, both under a certificate authority of its own, and a\n"
    "dashboard that acknowledges packets. Writes below DIR what `corvidd --root DIR` needs, prints one\n"
    "line of JSON with its addresses when it is ready, and appends what it receives to\n"
    "DIR/lab/received.jsonl. With --web, shows it all on a page for a browser at the \"web\" address and\n"
    "plans faults there. Ends on SIGINT or SIGTERM.";

constexpr const char* footer =
    "POST a JSON object to the \"control\" address to plan a fault:\n"
    "{\"server\":\"events\",\"status\":503,\"times\":2} (also body, delay, redirect, cutBodyAfter,\n"
    "cutHeadAfter, endless, silent, corrupt, truncate; servers: storebags, events, realtime, logData,\n"
    "upload); for packets {\"server\":\"dashboard\",\"packets\":{\"drop\":0.3},\"acknowledgements\":{},\n"
    "\"seed\":1} (also duplicate, corrupt, reorder, late, from 0 to 1; delay in seconds).\n"
    "times is 1 unless given, -1 lasts until told otherwise.\n"
    "\n"
    "Exit status: 0 done, 1 it did not work (standard error says why), 64 wrong usage.";

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

int run(std::vector<std::string> arguments) {
  CLI::App app(description, "corvid-lab");
  corvid::addCommonOptions(app, "corvid-lab " CORVID_VERSION);
  app.footer(footer);
  std::string root;
  corvid::lab::Lab::Options options;
  bool shows = false;
  corvid::addFolder(app, "--root", root, "Folder that the daemon's files lie below")
      ->required()
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
  if (const auto status = corvid::readCommandLine(app, std::move(arguments))) return *status;
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
