// bench/uploads: what the daemon's memory is at most while files are uploaded.
//
// Each case has a daemon of its own: one file that compresses well, one that does not, and two of
// the latter at once from two clients.
#include <fmt/format.h>

#include <chrono>
#include <corvid/corvid.hpp>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <functional>
#include <future>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "bench/MeasuredProcess.h"
#include "bench/Program.h"
#include "tools/lab/Lab.h"

#ifndef CORVID_DAEMON
#error "CORVID_DAEMON names the daemon to measure"
#endif

namespace corvid::bench {
namespace {

constexpr int uploadClient = 16;  // of the lab's storebag "folio"
constexpr std::size_t mebibyte = std::size_t{1} << 20;

using Steady = std::chrono::steady_clock;

std::string logLines(std::size_t size) {
  std::string text;
  for (std::uint32_t i = 0; text.size() < size; ++i)
    text += fmt::format("{:010} call {} has {} packets, {} of them late\n", i * 37, i % 911,
                        i * 2654435761u % 100'003, i * 40503u % 1'009);
  text.resize(size);
  return text;
}

std::string noise(std::size_t size) {
  std::string bytes(size, '\0');
  std::uint64_t state = 88172645463325252ULL;
  for (char& byte : bytes) {
    state ^= state << 13;
    state ^= state >> 7;
    state ^= state << 17;
    byte = static_cast<char>(state);
  }
  return bytes;
}

class Client {
 public:
  explicit Client(const std::string& root) : _session(options(root)) {
    const auto until = Steady::now() + std::chrono::seconds(10);
    while (!_session.connect())
      if (Steady::now() > until) throw std::runtime_error("the daemon does not serve");
    client::Dictionary info;
    (void)info.set(kCorvidSessionInfoClientType, uploadClient);
    std::promise<void> started;
    (void)_session.setSessionInfo(info);
    (void)_session.startConfig(nullptr, [&](corvid_outcome_t) { started.set_value(); });
    started.get_future().get();
  }
  // Throws unless the server has confirmed the file.
  void upload(const std::string& file) {
    std::promise<bool> uploaded;
    const auto accepted = _session.uploadFile(
        file.c_str(), [&](client::Status, bool success, std::optional<client::Error>) {
          uploaded.set_value(success);
        });
    if (!accepted || !uploaded.get_future().get() || std::filesystem::exists(file))
      throw std::runtime_error(file + " was not uploaded");
  }

 private:
  static client::Session::Options options(const std::string& root) {
    client::Session::Options options;
    options.root = root;
    return options;
  }
  client::Session _session;
};

void measureCase(const std::string& program, const std::string& root, std::string_view name,
                 const std::string& content, int clients) {
  MeasuredProcess daemon({program, "--root", root, "--log", "stderr", "--log-level", "warning"},
                         root + "/daemon.log");
  std::vector<std::unique_ptr<Client>> all;
  std::vector<std::string> files;
  for (int i = 0; i < clients; ++i) {
    all.push_back(std::make_unique<Client>(root));
    files.push_back(fmt::format("{}/file{}", root, i));
    std::ofstream(files.back(), std::ios::binary) << content;
  }
  const double before = daemon.peakMB();
  const auto start = Steady::now();
  std::vector<std::future<void>> uploads;
  uploads.reserve(static_cast<std::size_t>(clients));
  for (int i = 0; i < clients; ++i)
    uploads.push_back(std::async(std::launch::async, [&, i] {
      all[static_cast<std::size_t>(i)]->upload(files[static_cast<std::size_t>(i)]);
    }));
  for (auto& upload : uploads) upload.get();
  const double seconds = std::chrono::duration<double>(Steady::now() - start).count();
  std::this_thread::sleep_for(
      std::chrono::milliseconds(500));  // large blocks go back to the system
  fmt::print(
      "{:<42} peak {:7.1f} MB (before {:.1f}), afterwards {:.1f} MB, CPU {:.2f} s, {:.2f} s\n",
      name, daemon.peakMB(), before, daemon.memory().residentMB,
      std::chrono::duration<double>(daemon.cpuTime()).count(), seconds);
}

}  // namespace
}  // namespace corvid::bench

int main(int argc, char** argv) {
  using namespace corvid::bench;
  std::string daemon = CORVID_DAEMON;
  int mebibytes = 64;
  return run({.name = "uploads",
              .purpose = "Uploads files and prints the daemon's peak memory.",
              .numbers = {{"--mebibytes", &mebibytes}},
              .texts = {{"--corvidd", &daemon}},
              .measure =
                  [&](const std::string& folder) {
                    const std::size_t size = static_cast<std::size_t>(mebibytes) * mebibyte;
                    const corvid::lab::Lab lab(folder);
                    measureCase(daemon, folder, "one file of log lines", logLines(size), 1);
                    measureCase(daemon, folder, "one file that does not compress", noise(size), 1);
                    measureCase(daemon, folder, "two files that do not compress, at once",
                                noise(size), 2);
                  }},
             argc, argv);
}
