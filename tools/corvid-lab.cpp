// corvid-lab: every server that corvidd needs, for one machine.
#include <pthread.h>
#include <signal.h>

#include <cstdint>
#include <cstdio>
#include <exception>
#include <fstream>
#include <string>
#include <vector>

#include "platform/data/JSON.h"
#include "tools/CommandLine.h"
#include "tools/lab/Lab.h"
#include "tools/lab/Received.h"

namespace {

using corvid::tools::CommandLine;
using corvid::tools::UsageError;

constexpr const char* usage =
    "usage: corvid-lab --root DIR [--storebag-port N] [--report-port N] [--control-port N]\n"
    "                  [--dashboard-port N] [--max-age SECONDS]\n"
    "       corvid-lab --root DIR --show\n"
    "\n"
    "Plays every server that corvidd talks to: a storebag server that signs DIR/lab/storebags/*.plist,\n"
    "a collector of events, log data and files, both under a certificate authority of its own, and a\n"
    "dashboard that acknowledges packets. Writes below DIR what\n"
    "`corvidd --root DIR` needs, prints one line of JSON with its addresses when it is ready, and\n"
    "appends what it receives to DIR/lab/received.jsonl. Ends on SIGINT or SIGTERM.\n"
    "Ports are free ones unless given. POST a JSON object to the \"control\" address to plan a fault:\n"
    "{\"server\":\"events\",\"status\":503,\"times\":2} (also body, delay, redirect,\n"
    "cutBodyAfter, cutHeadAfter, endless, silent, corrupt, truncate; servers: storebags, events,\n"
    "realtime, logData, upload); for packets {\"server\":\"dashboard\",\"packets\":{\"drop\":0.3},\"acknowledgements\":{},\n"
    "\"seed\":1} (also duplicate, corrupt, reorder, late, from 0 to 1; delay in seconds).\n"
    "times is 1 unless given, -1 lasts until told otherwise.\n"
    "--show prints what has been received so far, for people, and ends.\n"
    "Exit status: 0 done, 1 it did not work (standard error says why), 64 wrong usage.\n";

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

int run(const std::vector<std::string>& arguments) {
  const CommandLine line(arguments,
                         {"--root", "--storebag-port", "--report-port", "--control-port",
                          "--dashboard-port", "--max-age"},
                         {"--show"});
  if (!line.words().empty()) throw UsageError("unexpected " + line.words().front());
  const auto root = line.folder("--root");
  if (!root) throw UsageError("--root is missing");
  const auto port = [&](const char* option) {
    return static_cast<std::uint16_t>(line.number(option, 0, 65535).value_or(0));
  };
  corvid::lab::Lab::Options options;
  options.storebagPort = port("--storebag-port");
  options.reportPort = port("--report-port");
  options.controlPort = port("--control-port");
  options.dashboardPort = port("--dashboard-port");
  if (const auto seconds = line.number("--max-age", 0, 1'000'000'000))
    options.maxAge = static_cast<int>(*seconds);
  return line.has("--show") ? show(*root) : serve(*root, options);
}

}  // namespace

int main(int argc, char** argv) {
  try {
    return run(std::vector<std::string>(argv + 1, argv + argc));
  } catch (const corvid::tools::HelpRequest&) {
    std::fputs(usage, stdout);
    return 0;
  } catch (const UsageError& error) {
    std::fprintf(stderr, "corvid-lab: %s\nTry corvid-lab --help.\n", error.what());
    return corvid::tools::exitUsage;
  } catch (const std::exception& error) {
    std::fprintf(stderr, "corvid-lab: %s\n", error.what());
    return 1;
  }
}
