#include "tests/simulation/Model.h"

#include <algorithm>
#include <utility>

#include "base/Reading.h"
#include "protocol/Keys.h"
#include "tests/simulation/Texts.h"

namespace corvid::simulation {

namespace {

constexpr std::uint16_t own = 0;  // the category of what the daemon says itself
constexpr std::uint16_t startType = 0;
constexpr std::uint16_t endType = 1;
constexpr std::uint16_t finishType = 2;

}  // namespace

bool Model::wantsUserInfo(const std::optional<Dictionary>& info) {
  return info && booleanAt(*info, kCorvidSessionInfoRequireUserInfo);
}

void Model::begin(const Facts& facts) {
  _facts = facts;
  _facts.now = facts.begin;
  _end = facts.now;
}

void Model::connect(int client, const std::string& sessionIDString, std::uint32_t user,
                    bool meetsOthers) {
  auto session = std::make_unique<Session>();
  session->client = client;
  session->idString = sessionIDString;
  session->user = user;
  session->meetsOthers = meetsOthers;
  _sessions[client] = std::move(session);
}

void Model::setSessionInfo(int client, const Dictionary& info,
                           const std::optional<Dictionary>& userInfo, bool aggregates) {
  Session& session = sessionOf(client);
  session.sessionID = static_cast<std::uint32_t>(int32At(info, kCorvidSessionInfoSessionID));
  session.info = info;
  session.userInfo = userInfo;
  session.aggregates = aggregates;
  if (session.silence == "noSessionInfo") session.silence = "notConfigured";
}

ModelStorebags::Found Model::storebagFor(const Session& session) {
  const std::int32_t type = session.info ? int32At(*session.info, kCorvidSessionInfoClientType) : 0;
  Facts facts = _facts;
  facts.now = _end;
  ModelStorebags::Found found = _storebags.storebag(type, session.user, facts, _step.fetches);
  if (found.waited) _facts.now = _end;
  return found;
}

void Model::startConfig(int client) {
  Session& session = sessionOf(client);
  const ModelStorebags::Found found = storebagFor(session);
  if (!found.section) {
    if (!session.backends) session.silence = session.info ? found.reason : "noSessionInfo";
    return say(client, "startConfig", "no states");
  }
  session.version = found.version;
  session.hasVersion = true;
  if (session.backends)
    for (const auto& [name, backend] : *session.backends) backend->cleanup();
  session.backends = backendsFrom(*found.section, *session.info, session.userInfo);
  for (const auto& [name, backend] : *session.backends) backend->setCombinedID(session.idString);
  if (session.backends->empty()) session.silence = "noBackendMade";
  settle(session);
  sendStart(session);
  say(client, "startConfig", statesOf(session));
}

Model::Backends Model::backendsFrom(const Dictionary& section, const Dictionary& info,
                                    const std::optional<Dictionary>& userInfo) {
  const Maker maker{
      .sessionID = static_cast<std::uint32_t>(int32At(info, kCorvidSessionInfoSessionID)),
      .clientType = int32At(info, kCorvidSessionInfoClientType),
      .clientVersion = static_cast<std::uint16_t>(int32At(info, kCorvidSessionInfoClientVersion)),
      .requiresUserInfo = booleanAt(info, kCorvidSessionInfoRequireUserInfo),
      .batches = booleanAt(info, kCorvidSessionInfoBatchEvent),
      .start = _facts.now,
      .draw = _facts.draw,
      .consents = _facts.consents,
  };
  Backends backends;
  for (const auto& [name, profile] : section)
    if (auto made = ModelBackend::make(name, profile, maker, userInfo, _facts, _books))
      backends[name] = std::move(made);
  return backends;
}

void Model::sendStart(Session& session) {
  Dictionary payload;
  if (_facts.device.isInternal)
    payload = {
        {"SerialNum", _facts.device.serialNumber}, {"Version", _facts.device.productVersion},
        {"Build", _facts.device.buildVersion},     {"Hardware", _facts.device.hardwareModel},
        {"Product", _facts.device.productFamily},  {"ReportVers", _facts.device.libraryVersion}};
  payload.set("AutomaticTimeSet", true);
  if (_facts.country) payload.set("Locale", *_facts.country);
  dispatch(session, own, startType, payload, 0);
}

std::string Model::statesOf(const Session& session) {
  std::vector<std::string> names;
  for (const auto& [name, backend] : *session.backends)
    if (backend->reports()) names.push_back(name);
  return textOfStates(std::move(names));
}

void Model::fetchStates(int client, const std::optional<Dictionary>& userInfo) {
  Session& session = sessionOf(client);
  receive(session, userInfo);
  say(client, "fetchStates", session.backends ? statesOf(session) : "no states");
}

void Model::fetchDisplayURL(int client) {
  const Session& session = sessionOf(client);
  std::string url = "URL not available";
  for (const char* const name : {"dashboard", "httpPost2", "httpPost"})
    if (session.backends && session.backends->contains(name))
      url = session.backends->at(name)->displayURL().value_or(url);
  say(client, "fetchDisplayURL", url);
}

void Model::send(int client, const Dictionary& message) {
  const auto number = [&](std::string_view key) -> std::optional<std::uint16_t> {
    const auto found = integerAt(message, key);
    return found ? std::optional(static_cast<std::uint16_t>(*found)) : std::nullopt;
  };
  std::optional<Dictionary> payload;
  if (const auto* found = dictionaryAt(message, kCorvidMessageParametersPayload)) payload = *found;
  say(client, "send",
      dispatch(sessionOf(client), number(kCorvidMessageParametersCategory),
               number(kCorvidMessageParametersType), payload,
               int32At(message, kCorvidMessageParametersFlag)));
}

void Model::finish(int client) {
  say(client, "finish", dispatch(sessionOf(client), own, finishType, std::nullopt, 0));
}

std::string Model::dispatch(Session& session, const std::optional<std::uint16_t>& category,
                            const std::optional<std::uint16_t>& type,
                            const std::optional<Dictionary>& payload, std::int32_t flag) {
  const auto drop = [&](const std::string& reason) {
    _books.add("accepted");
    _books.drop(reason);
    return textOf(Told());
  };
  if (!session.backends) return drop(session.silence);
  if (!category || !type) return drop("incompleteMessage");
  const Message message{payload, *category, *type, flag};
  aggregate(session, message);
  if (session.backends->empty()) return drop(session.silence);
  std::string reply = textOf(Told());
  for (const auto& [name, backend] : *session.backends) {
    const Told told = backend->send(message, _facts);
    if (name == kCorvidBackendHTTPPost) reply = textOf(told);
  }
  return reply;
}

void Model::sendSingle(int client, const Dictionary& info,
                       const std::optional<Dictionary>& userInfo, const Message& message) {
  Session& session = sessionOf(client);
  if (!integerAt(info, kCorvidSessionInfoClientType) ||
      !integerAt(info, kCorvidSessionInfoSessionID)) {
    _books.add("accepted");
    _books.drop("noSessionInfo");
    return say(client, "sendSingle", "unanswered");
  }
  session.sessionID = static_cast<std::uint32_t>(int32At(info, kCorvidSessionInfoSessionID));
  session.info = info;
  receive(session, userInfo);
  const ModelStorebags::Found found = storebagFor(session);
  if (!found.section) {
    _books.add("accepted");
    _books.drop(found.reason);
    return say(client, "sendSingle", "storebag not available");
  }
  const Backends backends = backendsFrom(*found.section, info, userInfo);
  if (backends.empty()) {
    _books.add("accepted");
    _books.drop("noBackendMade");
  }
  for (const auto& [name, backend] : backends) {
    backend->updateState(_facts);
    backend->send(message, _facts);
  }
  for (const auto& [name, backend] : backends) backend->cleanup();
  say(client, "sendSingle", "finished");
}

void Model::flush(int client) {
  Session& session = sessionOf(client);
  if (!session.backends)
    return say(client, "flush", Flush::errorText(-1, "No backends available to send message"));
  const auto flush = std::make_shared<Flush>(
      session.backends->size(), [this, client](std::vector<std::string> anyOf) {
        if (_sessions.contains(client))
          _step.answers.push_back({client, "flush", std::move(anyOf)});
      });
  if (session.backends->empty()) return;
  for (const auto& [name, backend] : *session.backends) backend->flush(_facts, flush);
  flush->settle();
}

void Model::leave(int client) {
  const auto session = std::move(_sessions.at(client));
  _sessions.erase(client);
  leaveGroups(*session);
  Dictionary payload;
  if (session->hasVersion) payload.set("StorebagVersion", session->version);
  dispatch(*session, own, endType, payload, 0);
  if (!session->backends) return;
  for (const auto& [name, backend] : *session->backends) backend->flush(_facts, nullptr);
  for (const auto& [name, backend] : *session->backends) backend->cleanup();
}

void Model::answer(const ExpectedPost& post, const Ending& ending) {
  _books.take("underWay", post.events);
  if (ending.status == 0)
    _books.add("failed " + ending.kind, post.events);
  else if (ending.status >= 200 && ending.status < 300)
    _books.add("delivered", post.events);
  else
    _books.add("refused " + std::to_string(ending.status), post.events);
  post.ends(ending);
}

Step Model::takeStep(std::vector<ExpectedPost>& posts) {
  posts = std::exchange(_books.posts, {});
  for (const ExpectedPost& post : posts) _step.posts.push_back(post.post);
  for (const auto& [client, session] : _sessions) {
    std::string text = session->backends && !session->backends->empty() ? "" : session->silence;
    if (session->backends)
      for (const auto& [name, backend] : *session->backends) text += backend->description() + "; ";
    _step.states[client] = std::move(text);
  }
  _step.sums = _books.sums;
  return std::exchange(_step, {});
}

}  // namespace corvid::simulation
