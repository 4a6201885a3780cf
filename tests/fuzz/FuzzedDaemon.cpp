#include "tests/fuzz/FuzzedDaemon.h"

#include <fmt/format.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <string>
#include <string_view>
#include <utility>

#include "base/LogLine.h"
#include "base/UnixAddress.h"
#include "daemon/DaemonControl.h"
#include "protocol/Keys.h"

namespace corvid::fuzz {

namespace {

constexpr std::uint32_t user = 1000;

// Every backend, for whoever asks; batches of a few, filters of each kind, a level by client type.
Dictionary sectionFor(std::int32_t clientType) {
  const Dictionary entry{{"post_url", "https://events.invalid/"},
                         {"realtime_post_url", "https://realtime.invalid/"},
                         {"event_threshold", 3},
                         {"hierarchy", clientType % 4},
                         {"override_dnu", 1},
                         {"locale_whitelist", Array{"US"}},
                         {"sampling_threshold", 1.0},
                         {"filters", Array{Dictionary{{"key", "secret"}, {"action", "remove"}},
                                           Dictionary{{"key", "account"}, {"action", "sha256"}}}}};
  return {{"httpPost",
           Dictionary{{"display_url", "https://events.invalid/"}, {"clients", Array{entry}}}},
          {"dashboard", Dictionary{{"ip", "127.0.0.1"},
                                   {"port", 4464},
                                   {"post_url", "https://log.invalid/"},
                                   {"reliable", 500}}},
          {"metrix", Dictionary{{"active", true}}},
          {"wattbook", Dictionary()},
          {"uploadServer", Dictionary{{"post_url", "https://upload.invalid/"}}}};
}

}  // namespace

FuzzedDaemon::FuzzedDaemon()
    : _agent(CorviddAgent::create([this](std::int32_t clientType, const auto&) {
        _platform.clock->advance(
            std::chrono::seconds(1));  // so that nobody has to wait for the next
        return FetchedStorebag{.storebag = sectionFor(clientType), .maxAge = 3600, .version = "1"};
      })) {
  _platform.http->answerWith(
      [](const HTTPRequest&) { return FakeHTTPClient::response(200, "delete"); });
  _platform.bundles->bundle = std::make_shared<FakeBundle>();
  _platform.bundles->bundle->classes["MetrixAdaptor"].operations.insert(
      "sendMessageWithMethod:respCode:dict:");
  _resident->peerUser = user;
  _resident->entitlements.set(std::string(CorviddAgent::requiredEntitlement), true);
  require(_agent->shouldAcceptNewConnection(_resident));
  constexpr std::int32_t typeOfLevelZero = 8;
  const auto session = _resident->exportedObject;
  session->setSessionInfo(Dictionary{{std::string(kCorvidSessionInfoSessionID), 1},
                                     {std::string(kCorvidSessionInfoClientType), typeOfLevelZero},
                                     {std::string(kCorvidSessionInfoRequireUserInfo), true}},
                          Dictionary{{std::string(kCorvidUserInfoClientName), "Player"},
                                     {std::string(kCorvidUserInfoServiceName), "Service"}},
                          {}, true);
  session->startConfigWithCompletionHandler({});
}

std::shared_ptr<IPCConnection> FuzzedDaemon::serve(Descriptor socket) {
  auto connection = std::make_shared<IPCConnection>(
      std::move(socket), IPCConnection::Peer{++_lastNumber, 1, user},
      [] {
        return Dictionary{{std::string(CorviddAgent::requiredEntitlement), true}};
      },
      IPCConnection::Shared{*_platform.extensionTokens, Platform::current().budgets}, [] {});
  require(_agent->shouldAcceptNewConnection(connection));
  return connection;
}

Descriptor FuzzedDaemon::look() {
  const std::string path = _folder.emplace().path("control");
  auto control = ControlService::serving(
      ServiceSocket::bind(path), [](int) { return [] { return Dictionary(); }; },
      Platform::current().budgets);
  require(static_cast<bool>(control));
  _control = std::move(control).value();
  _control->resume(std::make_shared<DaemonControl>(Platform::current(), _agent,
                                                   DaemonControl::Facts{.version = "1"}));
  Descriptor socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
  require(UnixAddress(path).connect(socket.get()) == 0);
  return socket;
}

FuzzedDaemon::~FuzzedDaemon() {
  _control = nullptr;
  require(_agent->ledger()->totals().balance.adds());
  _resident->clientVanishes();
  require(_platform.keepAlive->begun == _platform.keepAlive->ended);
  const auto usage = _platform.extensionTokens->usage();
  require(usage.grants == 0 && usage.handles == 0 && usage.claimed == 0);
  const std::string looker = fmt::format(
      "ControlService: control connection 1 of process {}, user {} ends by an exception", getpid(),
      getuid());
  for (const auto& [level, line] : _platform.log.lines()) {
    require(line.size() <= logLineLimit + 64);
    // At its beginning only: further behind, a client may have said so.
    for (const std::string_view never :
         {std::string_view(looker), std::string_view("ControlService: Exception"),
          std::string_view(
              "IPCConnection: connection 1 of process 1, user 1000 ends by an exception"),
          std::string_view("SessionServer: Exception in "),
          std::string_view("SessionServer: Unknown exception")})
      require(!line.starts_with(never));
  }
}

}  // namespace corvid::fuzz
