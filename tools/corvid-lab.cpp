// corvid-lab: every server that corvidd needs, for one machine.
#include <pthread.h>
#include <signal.h>

#include <cstdio>
#include <cstdlib>
#include <exception>
#include <fstream>
#include <optional>
#include <string>
#include <string_view>

#include "platform/data/JSON.h"
#include "tools/lab/Lab.h"
#include "tools/lab/ReceivedSummary.h"

namespace {

constexpr const char* usage =
    "usage: corvid-lab --root DIR [--storebag-port N] [--report-port N] [--control-port N]\n"
    "                  [--max-age SECONDS]\n"
    "       corvid-lab --root DIR --show\n"
    "\n"
    "Plays every server that corvidd talks to: a storebag server that signs DIR/lab/storebags/*.plist\n"
    "and an event collector, both under a certificate authority of its own. Writes below DIR what\n"
    "`corvidd --root DIR` needs, prints one line of JSON with its addresses when it is ready, and\n"
    "appends what it receives to DIR/lab/received.jsonl. Ends on SIGINT or SIGTERM.\n"
    "Ports are free ones unless given. POST a JSON object to the \"control\" address to plan a fault:\n"
    "{\"server\":\"events\",\"status\":503,\"times\":2} (also delay, redirect, cutBodyAfter,\n"
    "cutHeadAfter, endless, silent, corrupt, truncate; servers: storebags, events, realtime).\n"
    "--show prints what has been received so far, for people, and ends.\n";

[[noreturn]] void refuse(const std::string& why) {
  std::fprintf(stderr, "corvid-lab: %s\n%s", why.c_str(), usage);
  std::exit(64);
}

int number(std::string_view option, const char* text, int most) {
  char* end = nullptr;
  const long value = std::strtol(text, &end, 10);
  if (end == text || *end != '\0' || value < 0 || value > most)
    refuse(std::string(option) + " takes a whole number from 0 to " + std::to_string(most));
  return static_cast<int>(value);
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

}  // namespace

int main(int argc, char** argv) {
  std::optional<std::string> root;
  corvid::lab::Lab::Options options;
  bool showOnly = false;
  for (int i = 1; i < argc; ++i) {
    const std::string_view option = argv[i];
    if (option == "--show") {
      showOnly = true;
      continue;
    }
    if (option == "--help") {
      std::fputs(usage, stdout);
      return 0;
    }
    if (i + 1 == argc)
      refuse("unknown option, or one that lacks its value: " + std::string(option));
    const char* value = argv[++i];
    if (option == "--root")
      root = value;
    else if (option == "--storebag-port")
      options.storebagPort = static_cast<std::uint16_t>(number(option, value, 65535));
    else if (option == "--report-port")
      options.reportPort = static_cast<std::uint16_t>(number(option, value, 65535));
    else if (option == "--control-port")
      options.controlPort = static_cast<std::uint16_t>(number(option, value, 65535));
    else if (option == "--max-age")
      options.maxAge = number(option, value, 1'000'000'000);
    else
      refuse("unknown option " + std::string(option));
  }
  if (!root) refuse("--root is missing");
  if (showOnly) return show(*root);

  // Blocked before the servers' threads exist, so that only sigwait below receives them.
  sigset_t ending;
  sigemptyset(&ending);
  sigaddset(&ending, SIGINT);
  sigaddset(&ending, SIGTERM);
  pthread_sigmask(SIG_BLOCK, &ending, nullptr);
  signal(SIGPIPE, SIG_IGN);

  try {
    const corvid::lab::Lab lab(*root, options);
    std::printf("%s\n", corvid::writeJSON(lab.addresses())->c_str());
    std::fflush(stdout);
    int signalNumber = 0;
    sigwait(&ending, &signalNumber);
  } catch (const std::exception& error) {
    std::fprintf(stderr, "corvid-lab: %s\n", error.what());
    return 1;
  }
  return 0;
}
