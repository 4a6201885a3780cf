#include "tests/simulation/SimulatedDevice.h"

#include <fmt/format.h>

#include <stdexcept>

#include "platform/data/JSON.h"
#include "tests/config/Signers.h"
#include "tests/simulation/Posts.h"
#include "tests/simulation/Texts.h"

namespace corvid::simulation {

using std::chrono::microseconds;

namespace {

constexpr std::string_view suite = "com.halcyon.corvid";
// When simulations begin: 2023-11-14 22:13:20.
constexpr microseconds beginning{1'700'000'000'000'000};

// Bodies of the posts that a message log's text tells of.
std::vector<Dictionary> bodiesIn(const std::string& text) {
  constexpr std::string_view first = "Flushed events:\n";
  constexpr std::string_view second = "\nStandalone event:\n";
  const auto parsed = [](std::string_view json) {
    const auto parsedText = parseJSON(json);
    if (!parsedText || !parsedText.value().dictionary())
      throw std::runtime_error("no JSON: " + std::string(json));
    return *parsedText.value().dictionary();
  };
  if (!text.starts_with(first)) return {parsed(text)};
  const std::size_t middle = text.find(second);
  return {parsed(std::string_view(text).substr(first.size(), middle - first.size())),
          parsed(std::string_view(text).substr(middle + second.size()))};
}

std::string messageText(const MessageAnswer& answer) {
  return simulation::textOf(answer ? bodiesIn(*answer) : std::vector<Dictionary>());
}

std::string statesText(const std::optional<Array>& states) {
  if (!states) return "no states";
  std::vector<std::string> names;
  for (const Value& name : *states) names.push_back(*name.string());
  return textOfStates(std::move(names));
}

}  // namespace

SimulatedDevice::SimulatedDevice(Device device, const StorebagServer& server)
    : _device(std::move(device)), _server(server) {
  // Lines are not looked at, and would cost most of the time.
  installLog(nullptr, LogLevel::error);
  FakeDeviceInformation& answers = *_fakes.device;
  answers.set("ProductType", _device.hardwareType);
  answers.set("DeviceName", _device.productFamily);
  if (_device.isInternal) answers.set("ReleaseType", "Internal");
  _fakes.locale->offset = _device.timeZoneOffset;
  const auto prefer = [&](const char* key, Value value) {
    _fakes.preferences->setValue(suite, key, std::move(value));
  };
  if (_device.environmentPreference) prefer("environmentType", *_device.environmentPreference);
  if (_device.batchAddress) prefer("httpsPostURL", *_device.batchAddress);
  if (_device.realtimeAddress) prefer("httpsRealtimePostURL", *_device.realtimeAddress);
  if (_device.forcesLogging) prefer("forceEventLogging", true);
  prefer("corvid_storebag_url", _device.storebagURL);
  if (_device.hasAdaptor) {
    _fakes.bundles->bundle = std::make_shared<FakeBundle>();
    _fakes.bundles->bundle->classes["MetrixAdaptor"].operations.insert(
        "sendMessageWithMethod:respCode:dict:");
  }
  startProcess();
}

// NOLINTNEXTLINE(bugprone-exception-escape): what is thrown there ends the simulation.
SimulatedDevice::~SimulatedDevice() { endProcess(); }

void SimulatedDevice::startProcess() {
  _http = std::make_shared<SimulatedHTTP>([this](const HTTPRequest& request) {
    const std::string path = request.url.substr(0, request.url.find('?'));
    Fetch fetch{.url = request.url};
    for (const auto& [name, value] : request.headers)
      if (name == "If-Modified-Since") fetch.ifModifiedSince = value;
    const FetchAnswer answer =
        _server.answer(path.substr(path.rfind('/') + 1), fetch.ifModifiedSince);
    _step.fetches.push_back(std::move(fetch));
    _fakes.clock->advance(_server.mood.takes);
    return _server.rendered(answer);
  });
  Platform::Services services = _fakes.services();
  services.http = _http;
  services.paths = _paths;
  services.deployment.messageLog = false;
  _platform = std::make_unique<Platform>(std::move(services));
  Platform::install(_platform.get());
  _agent = CorviddAgent::create();
}

void SimulatedDevice::endProcess() {
  _http->unplug();
  Platform::install(_platform.get());
  for (auto& [client, its] : _clients) its.connection->clientVanishes();
  _clients.clear();
  _agent.reset();
  Platform::install(nullptr);
}

void SimulatedDevice::restart() {
  endProcess();
  startProcess();
}

microseconds SimulatedDevice::time() const {
  return std::chrono::duration_cast<microseconds>(_fakes.clock->steadyNow().time_since_epoch()) -
         beginning;
}

void SimulatedDevice::begin(microseconds at, const Facts& facts) {
  if (at > time()) _fakes.clock->advance(at - time());
  Platform::install(_platform.get());
  _fakes.locale->country = facts.country;
  _fakes.consent->allowed = facts.consents;
  _fakes.random->draw = facts.draw;
  static const std::string key = trustedSigner().publicKeyDER();
  _fakes.files->files[_paths.publicKeyFile] = {facts.keyIsGood ? key : "damaged", {}};
}

CorviddSession& SimulatedDevice::sessionOf(int client) {
  return dynamic_cast<CorviddSession&>(*_clients.at(client).connection->exportedObject);
}

std::string SimulatedDevice::connect(int client, std::uint32_t user, bool meetsOthers) {
  Client& its = _clients[client];
  its.connection = std::make_shared<FakeConnection>();
  its.connection->entitlements.set(std::string(CorviddAgent::requiredEntitlement), true);
  if (meetsOthers)
    its.connection->entitlements.set(std::string(CorviddSession::chainsEntitlement), true);
  its.connection->peerUser = user;
  its.connection->onDelivery = [&its] { its.hasDeliveries = true; };
  if (!_agent->shouldAcceptNewConnection(its.connection))
    throw std::runtime_error("an entitled client was refused");
  return sessionOf(client).sessionIDString();
}

void SimulatedDevice::setSessionInfo(int client, const Dictionary& info,
                                     const std::optional<Dictionary>& userInfo, bool aggregates) {
  sessionOf(client).setSessionInfo(info, userInfo, {}, aggregates);
}

void SimulatedDevice::startConfig(int client) {
  RecordedReply<std::optional<Array>> reply;
  sessionOf(client).startConfigWithCompletionHandler(reply.reply());
  say(client, "startConfig", reply.unanswered() ? "unanswered" : statesText(reply.result()));
}

void SimulatedDevice::fetchStates(int client, const std::optional<Dictionary>& userInfo) {
  RecordedReply<std::optional<Array>> reply;
  sessionOf(client).fetchStatesWithUserInfo(userInfo, reply.reply());
  say(client, "fetchStates", statesText(reply.result()));
}

void SimulatedDevice::fetchDisplayURL(int client) {
  RecordedReply<std::string> reply;
  sessionOf(client).fetchDisplayURL(reply.reply());
  say(client, "fetchDisplayURL", reply.result());
}

void SimulatedDevice::send(int client, const Dictionary& message) {
  RecordedReply<MessageAnswer> reply;
  sessionOf(client).sendMessageWithDictionary(message, reply.reply());
  say(client, "send", messageText(reply.result()));
}

void SimulatedDevice::sendSingle(int client, const Dictionary& info,
                                 const std::optional<Dictionary>& userInfo, std::uint16_t category,
                                 std::uint16_t type, const std::optional<Dictionary>& payload) {
  RecordedReply<MessageAnswer> reply;
  sessionOf(client).sendMessageWithSessionInfo(info, userInfo, category, type, payload,
                                               reply.reply());
  say(client, "sendSingle", reply.unanswered() ? "unanswered" : reply.result().value_or("nothing"));
}

void SimulatedDevice::finish(int client) {
  RecordedReply<MessageAnswer> reply;
  sessionOf(client).finishSessionWithReply(reply.reply());
  say(client, "finish", messageText(reply.result()));
}

void SimulatedDevice::flush(int client) {
  auto& flushes = _clients.at(client).flushes;
  sessionOf(client).flushMessagesWithCompletion(flushes.emplace_back().reply());
}

void SimulatedDevice::leave(int client) {
  _clients.at(client).connection->clientVanishes();
  _clients.erase(client);
}

void SimulatedDevice::answer(std::uint64_t post, const Ending& ending) {
  if (ending.status != 0) {
    _http->answer(post, FakeHTTPClient::response(ending.status));
    return;
  }
  HTTPFailure kind = HTTPFailure::other;
  for (std::size_t at = 0; at < httpFailureCount; ++at)
    if (wordOf(static_cast<HTTPFailure>(at)) == ending.kind) kind = static_cast<HTTPFailure>(at);
  _http->answer(post, FakeHTTPClient::error(transportErrorCode, ending.kind, kind));
}

void SimulatedDevice::takeFlushes(int client, Client& its) {
  std::erase_if(its.flushes, [&](const auto& reply) {
    if (reply.answers() == 0) return reply.unanswered();
    const auto [text, error] = reply.answer();
    say(client, "flush",
        error  ? fmt::format("{}: {}", error->code, error->localizedDescription)
        : text ? "text"
               : "nothing");
    return true;
  });
}

void SimulatedDevice::takeDeliveries(int client, Client& its) {
  if (!std::exchange(its.hasDeliveries, false)) return;
  const auto deliveries = its.connection->deliveries();
  for (; its.deliveries < deliveries.size(); ++its.deliveries) {
    const FakeConnection::Delivery& one = deliveries[its.deliveries];
    _step.deliveries.push_back(
        {client, one.message, one.timestamp, one.category, one.type, one.payload});
  }
}

Step SimulatedDevice::takeStep(std::vector<std::uint64_t>& numbers) {
  for (auto& [client, its] : _clients) {
    takeFlushes(client, its);
    takeDeliveries(client, its);
    const StatesReport report = sessionOf(client).statesReport();
    std::string text(report.reason ? wordOf(*report.reason) : "");
    std::map<std::string, std::string> backends;
    for (const auto& backend : report.backends)
      backends[backend.name] =
          fmt::format("{} {} {}{}; ", backend.name, backend.state, wordOf(backend.reason),
                      backend.reports ? " reports" : "");
    for (const auto& [name, description] : backends) text += description;
    _step.states[client] = std::move(text);
  }
  numbers.clear();
  for (const auto& [number, request] : _http->takeBegun()) {
    numbers.push_back(number);
    _step.posts.push_back(postOf(request));
  }
  const Balance balance = _agent->ledger()->totals().balance;
  if (!balance.adds()) throw std::runtime_error("the ledger does not add up");
  for (const auto& [word, value] : balance.toDictionary()) {
    if (const auto number = value.integer()) {
      if (*number != 0) _step.sums[word] = *number;
    } else {
      for (const auto& [kind, count] : *value.dictionary())
        _step.sums[word + " " + kind] = *count.integer();
    }
  }
  return std::exchange(_step, {});
}

std::optional<std::string> SimulatedDevice::preference(const std::string& key) {
  const auto value = _fakes.preferences->value(suite, key);
  return value && value->string() ? std::optional(*value->string()) : std::nullopt;
}

}  // namespace corvid::simulation
