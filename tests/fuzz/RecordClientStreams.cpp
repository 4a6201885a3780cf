// Writes a first corpus of streams into the folders clientstream and controlstream of a folder:
// what the client library and corvidctl send to a daemon, one write a message. Run it anew when the
// protocol has got new calls.
#include <capnp/serialize.h>
#include <fmt/format.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cstring>
#include <fstream>
#include <functional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "rpc/ServiceSocket.h"
#include "tests/e2e/TestClient.h"
#include "tests/fuzz/ClientStream.h"
#include "tests/fuzz/FuzzedDaemon.h"
#include "tests/support/Scratch.h"
#include "tools/corvidctl/ControlClient.h"

namespace {

using namespace corvid;
using fuzz::ClientWrite;
using fuzz::require;

// Stands between a client and the daemon and writes down what the client says.
class Recorder {
 public:
  Recorder(Descriptor client, bool looks) : _client(std::move(client)) {
    if (looks) {
      _daemon = _fuzzed.look();
      return;
    }
    std::array<int, 2> ends{};
    require(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0, ends.data()) == 0);
    _daemon = Descriptor(ends[0]);
    _connection = _fuzzed.serve(Descriptor(ends[1]));
  }
  // Until the client leaves.
  std::vector<ClientWrite> record() {
    for (;;) {
      std::array<pollfd, 2> ready{{{_client.get(), POLLIN, 0}, {_daemon.get(), POLLIN, 0}}};
      require(poll(ready.data(), ready.size(), -1) > 0);
      if (ready[1].revents != 0) pass(_daemon, _client);
      if (ready[0].revents != 0 && !pass(_client, _daemon)) break;
    }
    shutdown(_daemon.get(), SHUT_WR);
    if (_connection) _connection->join();
    return std::move(_writes);
  }

 private:
  bool pass(const Descriptor& from, const Descriptor& to) {
    std::array<char, 65536> buffer;
    alignas(cmsghdr) std::array<char, CMSG_SPACE(sizeof(int))> control{};
    iovec bytes{buffer.data(), buffer.size()};
    msghdr message{};
    message.msg_iov = &bytes, message.msg_iovlen = 1;
    message.msg_control = control.data(), message.msg_controllen = control.size();
    const ssize_t count = recvmsg(from.get(), &message, MSG_CMSG_CLOEXEC | MSG_DONTWAIT);
    if (count <= 0) return count < 0 && errno == EAGAIN;
    const cmsghdr* const header = CMSG_FIRSTHDR(&message);
    if (&from == &_client) {
      note({buffer.data(), static_cast<std::size_t>(count)}, header);
      _fuzzed.dropEvent();
    }
    bytes.iov_len = static_cast<std::size_t>(count);
    message.msg_controllen = header ? message.msg_controllen : 0;
    require(sendmsg(to.get(), &message, MSG_NOSIGNAL) == count);
    if (header) {
      int passed = -1;
      std::memcpy(&passed, CMSG_DATA(header), sizeof passed);
      close(passed);
    }
    return true;
  }
  // Cuts what has come into messages; the last of them is the one that a descriptor came with.
  void note(std::string_view bytes, const cmsghdr* descriptor) {
    _unfinished.append(bytes);
    while (_unfinished.size() >= sizeof(capnp::word)) {
      std::vector<capnp::word> words(_unfinished.size() / sizeof(capnp::word));
      std::memcpy(words.data(), _unfinished.data(), words.size() * sizeof(capnp::word));
      const std::size_t size =
          capnp::expectedSizeInWordsFromPrefix({words.data(), words.size()}) * sizeof(capnp::word);
      if (size > _unfinished.size()) break;
      _writes.push_back({fuzz::Passed::nothing, _unfinished.substr(0, size)});
      _unfinished.erase(0, size);
    }
    if (descriptor) _writes.back().passed = fuzz::Passed::file;
  }

  const Descriptor _client;
  fuzz::FuzzedDaemon _fuzzed;
  Descriptor _daemon;
  std::shared_ptr<IPCConnection> _connection;
  std::string _unfinished;
  std::vector<ClientWrite> _writes;
};

using Conversation = std::function<void(TestClient&, const ScratchFolder&)>;

std::vector<std::pair<std::string, Conversation>> conversations() {
  const auto named = [](int type) {
    return TestClient::Description{.clientType = type, .clientName = "Player"};
  };
  return {
      {"plain",
       [](TestClient& client, auto&) {
         client.configure({}).text();
         client.send("mark").text();
         client.displayURL().text();
         client.flush().text();
       }},
      {"batch",
       [](TestClient& client, auto&) {
         client.configure({.batches = true}).text();
         std::vector<TestClient::Outcome> sent;
         for (int i = 0; i < 6; ++i) sent.push_back(client.send("mark", i % 3));
         for (const auto& outcome : sent) outcome.text();
         client.flush().text();
       }},
      {"user",
       [=](TestClient& client, auto&) {
         client.configure(named(9)).text();
         client.send("mark").text();
         client
             .fetchStates(
                 *TestClient::userInfo({.clientName = "Another", .serviceName = "Service"}))
             .text();
       }},
      {"metrix",
       [=](TestClient& client, auto&) {
         client.configure(named(13)).text();
         client.send("mark", 1).text();
       }},
      {"upload",
       [](TestClient& client, const ScratchFolder& folder) {
         client.configure({.clientType = 16}).text();
         client.upload(folder.write("file", std::string(300, 'x'))).text();
       }},
      {"single",
       [](TestClient& client, auto&) {
         client::Dictionary payload;
         (void)payload.set("mark", "single");
         client.single(TestClient::sessionInfo({}), payload).text();
       }},
  };
}

using Look = std::function<void(ctl::ControlClient&)>;

std::vector<std::pair<std::string, Look>> looks() {
  return {
      {"status", [](auto& control) { control.status(); }},
      {"sessions", [](auto& control) { control.sessions(0), control.sessions(1); }},
      {"explain", [](auto& control) { control.explain(0, 0), control.explain(1, 5); }},
      {"tap", [](auto& control) { control.watch(0, true), control.nextLines(); }},
      {"metrics", [](auto& control) { control.metrics(); }},
      {"refresh", [](auto& control) { control.refresh(-1, true), control.refresh(5, false); }},
      {"loglevel", [](auto& control) { control.setLogLevel(3, 60), control.setLogLevel(7, 0); }},
  };
}

// Takes the client that `talk` is, and writes down what it says.
void record(const std::string& file, const ServiceSocket& socket, bool looks,
            std::function<void()> talk) {
  std::thread talking(std::move(talk));
  pollfd waiting{socket.get(), POLLIN, 0};
  require(poll(&waiting, 1, -1) == 1);
  Descriptor accepted(accept4(socket.get(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK));
  require(static_cast<bool>(accepted));
  const auto writes = Recorder(std::move(accepted), looks).record();
  talking.join();
  std::ofstream(file, std::ios::binary) << fuzz::clientStream(writes);
  fmt::print("{}: {} messages\n", file, writes.size());
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2) return fmt::print(stderr, "usage: {} FOLDER\n", argv[0]), 2;
  const std::string target = argv[1];
  const ScratchFolder folder;
  const auto socket = ServiceSocket::bind(folder.path("run/corvidd/com.halcyon.corvidd"));
  const auto control = ServiceSocket::bind(folder.path("run/corvidd/control"));
  require(socket && control);
  for (const auto& [name, converse] : conversations())
    record(target + "/clientstream/" + name, socket.value(), false, [&, &talk = converse] {
      TestClient client(folder.path());
      talk(client, folder);
    });
  for (const auto& [name, look] : looks())
    record(target + "/controlstream/" + name, control.value(), true, [&, &see = look] {
      ctl::ControlClient client(folder.path());
      see(client);
    });
  return 0;
}
