#include "tests/simulation/Life.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <utility>

#include "base/Describe.h"
#include "base/Reading.h"
#include "protocol/Keys.h"
#include "tests/simulation/Comparison.h"

namespace corvid::simulation {

namespace {

using std::chrono::microseconds;
using std::chrono::milliseconds;
using std::chrono::seconds;

constexpr std::array<const char*, 8> names{"lumen",   "tessel", "parlor", "orrery",
                                           "cadence", "quill",  "ledger", "folio"};
constexpr std::size_t mostClients = 8;
// So few that nobody waits for room.
constexpr std::size_t mostExchanges = 24;
constexpr std::size_t stepsInReport = 25;

unsigned mixed(unsigned seed, unsigned number) { return seed * 2654435761u + number * 40503u + 1; }

}  // namespace

Life::Life(unsigned seed, unsigned number, const Defects& defects)
    : _seed(seed),
      _number(number),
      _defects(defects),
      _dice(mixed(seed, number)),
      _facts{.device = anyDevice(_dice)},
      _device(_facts.device, _server),
      _model(std::make_unique<Model>(_server)) {
  _device.http().losesEvery = _defects.losesPost;
  for (const char* const name : names)
    if (!_dice.oneIn(8)) _server.publish(name);
  _nextAct = anyPause();
}

Device Life::anyDevice(RandomInputs& dice) {
  Device device;
  device.isInternal = dice.oneIn(4);
  if (dice.oneIn(3)) device.environmentPreference = 1 + std::int64_t(dice.below(5));
  if (dice.oneIn(40)) device.environmentPreference = 0;
  if (dice.oneIn(5)) device.hardwareType = "Lanai";
  if (dice.oneIn(4)) device.productFamily = "Wren";
  if (dice.oneIn(8)) device.batchAddress = "https://chosen.batch/";
  if (dice.oneIn(8)) device.realtimeAddress = "https://chosen.now/";
  device.forcesLogging = dice.oneIn(3);
  device.hasAdaptor = dice.oneIn(2);
  device.timeZoneOffset = dice.oneIn(2) ? 0 : -12600;
  return device;
}

microseconds Life::due() const {
  return _underWay.empty() ? _nextAct : std::min(_nextAct, _underWay.begin()->first);
}

void Life::step() {
  ++_steps;
  _due = due();
  if (_due < _nextAct) return answer();
  act();
  _nextAct = _device.time() + anyPause();
}

// Bursts of calls, pauses, and nights.
microseconds Life::anyPause() {
  if (_dice.oneIn(60)) return milliseconds(_dice.below(16u * 3'600'000));
  if (_dice.oneIn(15)) return milliseconds(_dice.below(80u * 60'000));
  return milliseconds(_dice.below(2'000));
}

void Life::act() {
  if (_dice.oneIn(12)) return changeSurroundings();
  if (_clients.empty() || (_clients.size() < mostClients && _dice.oneIn(10))) return connect();
  if (_underWay.size() >= mostExchanges) return changeSurroundings();
  actOfClient(_clients[_dice.below(_clients.size())]);
}

void Life::actOfClient(int client) {
  switch (_dice.below(30)) {
    case 0: return describe(client);
    case 1: return start(client);
    case 2:
    case 3: return rename(client);
    case 4:
      if (_dice.oneIn(2)) return sendSingle(client);
      [[fallthrough]];
    case 5:
    case 6:
      begin(fmt::format("client {}: finish", client));
      _device.finish(client);
      _model->finish(client);
      return compare();
    case 7:
    case 8:
      begin(fmt::format("client {}: flush", client));
      _device.flush(client);
      _model->flush(client);
      return compare();
    case 9:
      begin(fmt::format("client {}: display URL", client));
      _device.fetchDisplayURL(client);
      _model->fetchDisplayURL(client);
      return compare();
    case 10: return leave(client);
    default: return send(client);
  }
}

void Life::begin(std::string what) {
  _facts.draw = static_cast<double>(_dice.below(100)) / 100;
  Facts known = _facts;
  known.consents = known.consents || _defects.forgetsRefusal;
  _device.begin(_due, known);
  _facts.begin = _device.timeOfDay();
  _latest.push_back(fmt::format("#{} at {}.{:06} s: {}", _steps, _device.time().count() / 1'000'000,
                                _device.time().count() % 1'000'000, what));
  if (_latest.size() > stepsInReport) _latest.pop_front();
  _hash.add(_latest.back());
  ++_met[what.substr(what.find(": ") == std::string::npos ? 0 : what.find(": ") + 2).substr(0, 12)];
  Facts facts = _facts;
  // How long a fetch takes is the server's to say.
  facts.now = facts.begin + static_cast<double>(_server.mood.takes.count()) / 1000;
  _model->begin(facts);
}

void Life::compare() {
  std::vector<std::uint64_t> numbers;
  std::vector<ExpectedPost> posts;
  std::vector<std::size_t> places;
  Step seen;
  try {
    seen = _device.takeStep(numbers);
  } catch (const std::exception& error) {
    throw Difference(report(error.what()));
  }
  Step expected = _model->takeStep(posts);
  for (Post& post : expected.posts) resolveIdentifier(post.body);
  if (const auto found = difference(expected, seen, places)) throw Difference(report(*found));
  for (std::size_t i = 0; i < posts.size(); ++i) schedule(numbers[places[i]], std::move(posts[i]));
  for (const Post& post : seen.posts) _hash.add(description(post.body));
  for (const auto& [client, states] : seen.states) _hash.add(states);
  for (const auto& [word, count] : seen.sums) {
    _met[word] = std::max(_met[word], static_cast<std::uint64_t>(count));
    _hash.add(fmt::format("{} {}", word, count));
  }
}

void Life::schedule(std::uint64_t number, ExpectedPost post) {
  // What is lost is a failure after a minute.
  const milliseconds takes = _dice.oneIn(20)  ? milliseconds(60'000)
                             : _dice.oneIn(8) ? milliseconds(_dice.below(59'000))
                                              : milliseconds(5 + _dice.below(400));
  _underWay.emplace(_device.time() + takes, UnderWay{number, std::move(post)});
}

void Life::answer() {
  constexpr std::array<int, 12> statuses{200, 200, 200, 200, 200, 204,
                                         200, 302, 404, 429, 500, 503};
  constexpr std::array<const char*, 5> kinds{"timeout", "connect", "tls", "closed", "resolve"};
  const UnderWay ended = std::move(_underWay.extract(_underWay.begin()).mapped());
  Ending ending;
  if (_dice.oneIn(10))
    ending.kind = _dice.anyOf(kinds);
  else
    ending.status = _dice.anyOf(statuses);
  begin(fmt::format("exchange {}: {}", ended.number,
                    ending.status ? fmt::format("status {}", ending.status) : ending.kind));
  _device.answer(ended.number, ending);
  _model->answer(ended.post, ending);
  compare();
}

void Life::resolveIdentifier(Dictionary& body) {
  constexpr std::string_view custom = "custom:";
  const std::string name = textAt(body, "clientId").value_or("");
  if (!name.starts_with(custom)) return;
  const auto stored = _device.preference("uuid:" + name.substr(custom.size()));
  // Once made, an identifier stays, and is nobody else's.
  const auto [known, isNew] = _identifiers.try_emplace(name, stored.value_or("none is stored"));
  if (isNew)
    for (const auto& [other, identifier] : _identifiers)
      if (other != name && identifier == known->second)
        throw Difference(report("one identifier for " + name + " and " + other));
  body.set("clientId", known->second);
}

// ---- What clients do

void Life::connect() {
  const int client = ++_lastClient;
  const std::uint32_t user = _dice.oneIn(5) ? 1001 : 1000;
  const bool meetsOthers = _dice.oneIn(3);
  begin(fmt::format("client {}: connect as {}{}", client, user, meetsOthers ? "*" : ""));
  const std::string id = _device.connect(client, user, meetsOthers);
  if (id.size() != 24 || !_sessionIDs.insert(id).second)
    throw Difference(report("a session with the ID " + id));
  _model->connect(client, id, user, meetsOthers);
  _clients.push_back(client);
  compare();
  if (!_dice.oneIn(6)) describe(client);
  if (!_dice.oneIn(6)) start(client);
}

void Life::describe(int client) {
  const Dictionary info = sessionInfo();
  const auto user = userInfo();
  const bool aggregates = _dice.oneIn(4);
  begin(fmt::format("client {}: describe {} {}{}", client, description(info),
                    user ? description(*user) : "", aggregates ? " aggregates" : ""));
  _device.setSessionInfo(client, info, user, aggregates);
  _model->setSessionInfo(client, info, user, aggregates);
  compare();
}

void Life::start(int client) {
  fetchesMayCome();
  begin(fmt::format("client {}: start", client));
  _device.startConfig(client);
  _model->startConfig(client);
  compare();
}

void Life::rename(int client) {
  const auto user = userInfo();
  begin(fmt::format("client {}: rename {}", client, user ? description(*user) : "nobody"));
  _device.fetchStates(client, user);
  _model->fetchStates(client, user);
  compare();
}

void Life::send(int client) {
  Dictionary message;
  if (!_dice.oneIn(60)) message.set("Category", int(_dice.below(4)));
  if (!_dice.oneIn(60)) message.set("Type", int(_dice.below(4)));
  if (_dice.oneIn(4)) message.set("Flag", int(_dice.below(4)));
  if (auto content = payload()) message.set("Payload", *std::move(content));
  // Often several of a kind.
  for (std::size_t left = 1 + (_dice.oneIn(6) ? _dice.below(8) : 0); left > 0; --left) {
    begin(fmt::format("client {}: send {}", client, description(message)));
    _device.send(client, message);
    _model->send(client, message);
    compare();
  }
}

void Life::sendSingle(int client) {
  Dictionary info = sessionInfo();
  if (_dice.oneIn(10)) info.erase(_dice.oneIn(2) ? "SessionID" : "ClientType");
  const auto user = userInfo();
  const auto content = payload();
  const auto category = static_cast<std::uint16_t>(_dice.below(4));
  const auto type = static_cast<std::uint16_t>(_dice.below(4));
  fetchesMayCome();
  begin(fmt::format("client {}: single {}/{} {} {}", client, category, type, description(info),
                    user ? description(*user) : ""));
  _device.sendSingle(client, info, user, category, type, content);
  _model->sendSingle(client, info, user, {content, category, type, 0});
  compare();
}

void Life::leave(int client) {
  begin(fmt::format("client {}: leave", client));
  _device.leave(client);
  _model->leave(client);
  std::erase(_clients, client);
  compare();
}

Dictionary Life::sessionInfo() {
  constexpr std::array<int, 12> types{5, 6, 14, 7, 11, 8, 8, 9, 5, 5, 8, 3};
  Dictionary info{{std::string(kCorvidSessionInfoSessionID), int(_dice.below(100'000))},
                  {std::string(kCorvidSessionInfoClientType), _dice.anyOf(types)}};
  if (!_dice.oneIn(5)) info.set(std::string(kCorvidSessionInfoRequireUserInfo), !_dice.oneIn(5));
  if (!_dice.oneIn(3)) info.set(std::string(kCorvidSessionInfoBatchEvent), !_dice.oneIn(4));
  if (_dice.oneIn(2))
    info.set(std::string(kCorvidSessionInfoClientVersion), int(_dice.below(90'000)));
  return info;
}

std::optional<Dictionary> Life::userInfo() {
  constexpr std::array<const char*, 5> clients{"Player", "Player", "player", "Reader", "Nobody"};
  constexpr std::array<const char*, 4> services{"Feed", "Feed", "feeds", "Other"};
  if (_dice.oneIn(6)) return std::nullopt;
  Dictionary info;
  if (!_dice.oneIn(12)) info.set(std::string(kCorvidUserInfoClientName), _dice.anyOf(clients));
  if (!_dice.oneIn(4)) info.set(std::string(kCorvidUserInfoServiceName), _dice.anyOf(services));
  if (_dice.oneIn(3)) info.set("account", fmt::format("user {}", _dice.below(3)));
  return info;
}

std::optional<Dictionary> Life::payload() {
  if (_dice.oneIn(8)) return std::nullopt;
  Dictionary payload{{"mark", fmt::format("event {}", _dice.below(1000))}};
  if (_dice.oneIn(2)) payload.set("secret", "never leaves");
  if (_dice.oneIn(3)) payload.set("account", "of the event");
  if (_dice.oneIn(4)) payload.set("count", int(_dice.below(1'000'000)));
  if (_dice.oneIn(6)) payload.set("share", static_cast<double>(_dice.below(1000)) / 8);
  if (_dice.oneIn(6)) payload.set("isLive", _dice.oneIn(2));
  if (_dice.oneIn(8)) payload.set("when", Value(Date{static_cast<double>(_dice.below(1000)) / 4}));
  if (_dice.oneIn(8)) payload.set("bytes", Value(Data{"\x01\x02"}));
  if (_dice.oneIn(8)) payload.set("list", Array{1, "two"});
  if (_dice.oneIn(12)) payload.set("_clientName", "of the event");
  return payload;
}

// ---- What people, machines and time do

void Life::changeSurroundings() {
  constexpr std::array<const char*, 4> countries{"US", "DE", "AT", "FR"};
  switch (_dice.below(7)) {
    case 0:
      _facts.consents = !_dice.oneIn(4);
      begin(fmt::format("device: consent {}", _facts.consents));
      break;
    case 1:
      _facts.country.reset();
      if (!_dice.oneIn(6)) _facts.country = _dice.anyOf(countries);
      begin("device: country " + _facts.country.value_or("none"));
      break;
    case 2:
      _facts.keyIsGood = !_dice.oneIn(5);
      begin(fmt::format("device: key {}", _facts.keyIsGood));
      break;
    case 3: {
      const auto by =
          _dice.oneIn(3) ? seconds(0) : seconds(_dice.below(200'000)) - seconds(100'000);
      begin(fmt::format("device: clock {} s ahead", by.count()));
      _device.lie(by);
      break;
    }
    case 4:
      if (_dice.oneIn(6)) return restart();
      [[fallthrough]];
    default: {
      const char* const name = _dice.anyOf(names);
      begin(fmt::format("server: publish {}", name));
      _server.publish(name);
    }
  }
  compare();
}

void Life::restart() {
  begin("device: restart");
  _device.restart();
  _device.http().losesEvery = _defects.losesPost;
  _underWay.clear();
  _clients.clear();
  _sessionIDs.clear();
  _model = std::make_unique<Model>(_server);
  _model->begin(_facts);
  compare();
}

std::string Life::report(const std::string& difference) const {
  std::string text = fmt::format("seed {}, device {}, step {}, at {} s: {}\nlast steps:\n", _seed,
                                 _number, _steps, _device.time().count() / 1'000'000, difference);
  for (const std::string& step : _latest) text += "  " + step + "\n";
  return text;
}

}  // namespace corvid::simulation
