// Clients of a soak, in a process of their own that may be stopped and killed.
#include <fmt/format.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "tests/soak/ClientJournal.h"
#include "tests/soak/SoakClient.h"

int main(int count, char** arguments) {
  using namespace corvid::soak;
  if (count != 7) {
    std::fputs("usage: soak_client ROOT JOURNAL NAME SEED SESSIONS SECONDS\n", stderr);
    return 64;
  }
  const std::string root = arguments[1];
  const std::string name = arguments[3];
  const auto seed = static_cast<unsigned>(std::strtoul(arguments[4], nullptr, 10));
  const int sessions = std::atoi(arguments[5]);
  const auto end = std::chrono::steady_clock::now() +
                   std::chrono::milliseconds(static_cast<long>(std::atof(arguments[6]) * 1000));

  const auto journal = std::make_shared<const ClientJournal>(arguments[2]);
  std::mt19937 random(seed);
  std::vector<std::unique_ptr<SoakClient>> clients;
  for (int i = 0; i < sessions; ++i)
    clients.push_back(std::make_unique<SoakClient>(root, fmt::format("{}c{}", name, i), journal,
                                                   static_cast<unsigned>(random())));
  while (std::chrono::steady_clock::now() < end) {
    clients[random() % clients.size()]->act();
    std::this_thread::sleep_for(std::chrono::milliseconds(10 + random() % 60));
  }
  for (const auto& client : clients) client->leave();
  return 0;
}
