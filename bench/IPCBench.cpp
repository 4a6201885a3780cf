// What an event costs the daemon from the socket to the session: CPU time of the connection's
// thread for each event, with a session that does nothing, by the number of events that travel
// together.
#include <fmt/format.h>
#include <time.h>

#include <atomic>
#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

#include "platform/ExtensionTokens.h"
#include "platform/data/SystemRandom.h"
#include "rpc/IPCListener.h"
#include "tests/rpc/WireClient.h"
#include "tests/support/Scratch.h"

namespace corvid {
namespace {

double threadSeconds() {
  timespec now{};
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
  return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) / 1e9;
}

// Answers every event with nothing and keeps the time at which it saw the last one.
class IdleSession final : public ClientSessionInterface {
 public:
  void setSessionInfo(Dictionary, std::optional<Dictionary>, Array, bool) override {}
  void startConfigWithCompletionHandler(StatesReply) override {}
  void fetchStatesWithUserInfo(std::optional<Dictionary>, StatesReply) override {}
  // Asks for the thread's time.
  void fetchDisplayURL(Reply<std::string> reply) override {
    reply(fmt::format("{}", threadSeconds()));
  }
  void sendMessageWithCategory(std::uint16_t, std::uint16_t, std::optional<Dictionary> payload,
                               ResultReply reply) override {
    if (payload && payload->size() == 6) reply(std::nullopt);
  }
  void sendMessageWithDictionary(Dictionary, ResultReply) override {}
  void flushMessagesWithCompletion(FlushReply) override {}
  void finishSessionWithReply(ResultReply) override {}
  void uploadFileAtPath(std::string, std::string, SuccessReply) override {}
  void uploadLogData(Array, LogDataReply) override {}
  void sendMessageWithSessionInfo(Dictionary, std::optional<Dictionary>, std::uint16_t,
                                  std::uint16_t, std::optional<Dictionary>, ResultReply) override {}
  StatesReport statesReport() const override { return {}; }
};

class Delegate final : public ListenerDelegate {
 public:
  bool shouldAcceptNewConnection(std::shared_ptr<Connection> connection) override {
    connection->setExportedObject(std::make_shared<IdleSession>());
    connection->resume();
    return true;
  }
};

Dictionary payload() {
  return {{"name", "sixteen letters!"},
          {"identifier", "3F2504E0-4F89-11D3-9A0C-0305E82C3301"},
          {"count", 17},
          {"duration", 123456789},
          {"status", 200},
          {"ratio", 0.625}};
}

double secondsOfDaemon(WireClient& client) {
  auto request = client.session.fetchDisplayURLRequest();
  request.setReplyWanted(true);
  auto response = request.send().wait(client.scope);
  return std::atof(response.getUrl().getText().cStr());
}

// Sends `calls` calls of `together` events, a few under way at a time; microseconds an event.
double measure(WireClient& client, capnp::uint together, int calls, bool replyWanted) {
  const Dictionary content = payload();
  wire::Extent extent;
  extent.add(content);
  const double before = secondsOfDaemon(client);
  std::vector<kj::Promise<void>> underWay;
  for (int call = 0; call < calls; ++call) {
    auto request = client.session.sendMessagesRequest(
        capnp::MessageSize{64 + together * (extent.words + 4), 0});
    for (auto message : request.initMessages(together)) {
      message.setReplyWanted(replyWanted);
      auto event = message.initEvent();
      event.setCategory(3);
      event.setType(4);
      wire::encode(content, event.initPayload(static_cast<capnp::uint>(content.size())));
    }
    underWay.push_back(request.send().ignoreResult());
    if (underWay.size() < 4) continue;
    for (auto& promise : underWay) promise.wait(client.scope);
    underWay.clear();
  }
  for (auto& promise : underWay) promise.wait(client.scope);
  return (secondsOfDaemon(client) - before) * 1e6 / (static_cast<double>(calls) * together);
}

}  // namespace
}  // namespace corvid

// With a number, measures only that many events a call.
int main(int count, char** arguments) {
  using namespace corvid;
  const ScratchFolder folder;
  const std::string path = folder.path("socket");
  {
    ExtensionTokens tokens(std::make_shared<SystemRandom>(), 0);
    auto listener = IPCListener::serving(
        ServiceSocket::bind(path), [](int) { return [] { return Dictionary(); }; }, tokens);
    if (!listener) {
      fmt::print(stderr, "{}\n", listener.failure().message);
      return 1;
    }
    listener.value()->resume(std::make_shared<Delegate>());
    WireClient client(path);
    measure(client, 64, 200, true);
    const auto only = static_cast<capnp::uint>(count > 1 ? std::atoi(arguments[1]) : 0);
    for (const capnp::uint together : {1u, 4u, 16u, 64u, 256u}) {
      if (only != 0 && only != together) continue;
      for (const bool replyWanted : {false, true})
        fmt::print("{:4} events a call, {:10}: {:.2f} us an event\n", together,
                   replyWanted ? "answered" : "no reply",
                   measure(client, together, static_cast<int>(200000 / together), replyWanted));
    }
  }
}
