#include "tests/simulation/ModelBackend.h"

#include <fmt/format.h>

#include <utility>

#include "base/Reading.h"
#include "protocol/Keys.h"
#include "tests/simulation/ModelStorebags.h"

namespace corvid::simulation {

namespace {

constexpr std::uint16_t stopType = 1;

bool isRealtime(std::int32_t flag) { return flag == 1 || flag == 3; }
bool lifts(std::int32_t flag) { return flag == 2 || flag == 3; }

// What JSON has no place for is left out.
Dictionary writable(const Dictionary& record) {
  Dictionary result;
  for (const auto& [key, value] : record) {
    switch (value.type()) {
      case Value::Type::date: result.set(key, value.date()->secondsSince1970); break;
      case Value::Type::boolean:
      case Value::Type::integer:
      case Value::Type::real:
      case Value::Type::string: result.set(key, value); break;
      default: break;
    }
  }
  return result;
}

bool isAdaptorType(std::int32_t type) { return type == 7 || type == 11 || type == 13; }

}  // namespace

void Flush::settle() {
  if (_isOver) return;
  if (_errors.empty() && (_pending > 0 || _results.empty())) return;
  _isOver = true;
  _told(_errors.empty() ? _results : _errors);
}

void Flush::answerLater(const std::string& result, bool isError) {
  --_pending;
  if (_isOver || (!isError && _pending > 0)) return;
  _isOver = true;
  _told({result});
}

std::string Flush::errorText(int code, const std::string& text) {
  return fmt::format("{}: {}", code, text);
}
std::string Flush::resultText(bool hasText) { return hasText ? "text" : "nothing"; }

std::shared_ptr<ModelBackend> ModelBackend::make(const std::string& name, const Value& profile,
                                                 const Maker& maker,
                                                 const std::optional<Dictionary>& userInfo,
                                                 const Facts& facts, Books& books) {
  const Dictionary* const content = profile.dictionary();
  if (!content) return nullptr;
  Kind kind = Kind::other;
  if (name == "httpPost" || name == "httpPost2") {
    if (!arrayAt(*content, "clients")) return nullptr;
    kind = Kind::poster;
  } else if (name == "metrix") {
    if (!isAdaptorType(maker.clientType) || facts.device.hardwareType == "Lanai") return nullptr;
    kind = Kind::adaptor;
  } else if (name != "dashboard" && name != "uploadServer" && name != "wattbook") {
    return nullptr;
  }
  std::shared_ptr<ModelBackend> made(new ModelBackend(name, kind, maker, userInfo, books));
  made->_hasAdaptor = facts.device.hasAdaptor;
  made->_displayURL = textAt(*content, "display_url");
  if (kind == Kind::poster) {
    made->_policyMaker = {.profile = *content,
                          .requiresUserInfo = maker.requiresUserInfo,
                          .consents = maker.consents,
                          .draw = maker.draw};
    made->_policy.postURL = facts.device.batchAddress;
    made->_policy.realtimePostURL = facts.device.realtimeAddress;
    made->_policy.batches = maker.batches;
  }
  return made;
}

void ModelBackend::updateState(const Facts& facts) {
  if (_kind == Kind::poster) return decide(_policy, _policyMaker, _userInfo, facts);
  _policy.state = State::sending;
  _policy.reason = _kind == Kind::other ? "takesNoEvents" : _hasAdaptor ? "reporting" : "noAdaptor";
}

void ModelBackend::follow(const ModelBackend* parent) {
  if (state() == State::held) return;
  if (!parent) {
    _policy.state = State::disabled;
    _policy.reason = "parentLacksBackend";
    return;
  }
  _policy.state = parent->_policy.state;
  _policy.reason = parent->_policy.reason;
  // Whether there is an address is a backend's own matter.
  if (_kind == Kind::poster && state() == State::sending)
    _policy.reason = _policy.hasAddress() ? "reporting" : "noAddress";
  _policy.threshold = parent->_policy.threshold;
}

void ModelBackend::setCombinedID(const std::string& combinedID) {
  _combinedID = combinedID;
  if (!_batch) return;
  for (Dictionary& record : *_batch) record.set("_sessionID", combinedID);
}

std::string ModelBackend::description() const {
  return fmt::format("{} {} {}{}", _name, wordOf(state()), _policy.reason,
                     reports() ? " reports" : "");
}

Told ModelBackend::send(const Message& message, const Facts& facts) {
  ++_events;
  _books.add("accepted");
  if (_kind == Kind::other) {
    _books.drop("takesNoEvents");
    return {};
  }
  if (_kind == Kind::adaptor) {
    if (_hasAdaptor)
      _books.add("delivered");
    else
      _books.drop("noAdaptor");
    return {};
  }
  if (state() == State::disabled) {
    _books.drop(_policy.reason);
    return {};
  }
  Dictionary its = record(message, facts);
  if (lifts(message.flag) && state() == State::held) {
    _policy.state = State::sending;
    _policy.reason = _policy.hasAddress() ? "reporting" : "noAddress";
  }
  const bool mayLeave = state() == State::sending &&
                        (isRealtime(message.flag) || !_policy.batches) &&
                        (!_maker.requiresUserInfo || _userInfo);
  if (!mayLeave) return hold(std::move(its), facts);

  Told told;
  if (isRealtime(message.flag) && _batch) told = flush(facts, nullptr);
  Dictionary whole = body({its}, facts);
  if (isLogged(facts)) told.push_back(whole);
  post(std::move(whole), 1, &message, facts, nullptr, false);
  return told;
}

Dictionary ModelBackend::record(const Message& message, const Facts& facts) const {
  Dictionary record = message.payload.value_or(Dictionary());
  if (message.type == stopType && message.payload) {
    record.set("Opt", _policy.dnuType);
    record.set("SamplingThreshold", _policy.threshold.value_or(-1));
    record.set("OverrideSampling", _policy.overrideSampling.value_or(-1));
    record.set("Batch", int{_policy.batches});
  }
  const auto start = static_cast<std::int64_t>(_maker.start) / 60 * 60;
  const double time = static_cast<double>(start) + (facts.now - _maker.start);
  record.set("_startTS", start);
  record.set("_sender", tagOf(_maker.clientType));
  record.set("_clientVersion", _maker.clientVersion);
  if (_combinedID) record.set("_sessionID", *_combinedID);
  if (facts.device.isInternal && isAdaptorType(_maker.clientType))
    record.set("_sessionID", _maker.sessionID);
  record.set("_eventNumber", _events);
  record.set("_method", message.category);
  record.set("_status", message.type);
  record.set("_clientTS", time);
  record.set("eventTime", time);
  record.set("_productFamily", facts.device.productFamily);
  record.set("_productModel", facts.device.hardwareType);
  record.set("_osVersion", facts.device.productVersion);
  record.set("_build", facts.device.buildVersion);
  record.set("_internal", int{facts.device.isInternal});
  record.set("_reportVers", facts.device.libraryVersion);
  record.set("_timezoneOffset", facts.device.timeZoneOffset);
  if (_userInfo) record.addEntriesFrom(*_userInfo);
  applyFilters(_policy.filters, record);
  return record;
}

Told ModelBackend::hold(Dictionary record, const Facts& facts) {
  if (!_batch) _batch.emplace();
  const std::uint16_t method = static_cast<std::uint16_t>(int32At(record, "_method"));
  std::int32_t count = _counts[method];
  Told told;
  if (count > _policy.eventThreshold) {
    told = flush(facts, nullptr);
    count = 0;
  }
  if (_batch) {
    _batch->push_back(std::move(record));
    _books.add("held");
  } else {
    _books.drop("batchFull");
  }
  _counts[method] = count + 1;
  return told;
}

Told ModelBackend::flush(const Facts& facts, const std::shared_ptr<Flush>& flush) {
  if (_kind != Kind::poster) {
    if (flush) flush->answerAtOnce(Flush::resultText(false), false);
    return {};
  }
  if (_batch && state() == State::sending) {
    if (_maker.requiresUserInfo && !_userInfo) {
      if (flush)
        flush->answerAtOnce(Flush::errorText(-1, "Can not flush: userInfo is required"), true);
      return {};
    }
    std::vector<Dictionary> records = *std::exchange(_batch, std::nullopt);
    _counts.clear();
    if (_userInfo) {
      Dictionary info = *_userInfo;
      applyFilters(_policy.filters, info);
      for (Dictionary& record : records) record.addEntriesFrom(info);
    }
    Dictionary whole = body(records, facts);
    Told told;
    if (isLogged(facts)) told.push_back(whole);
    _books.take("held", records.size());
    post(std::move(whole), records.size(), nullptr, facts, flush, !told.empty());
    return told;
  }
  discard();
  if (flush) flush->answerAtOnce(Flush::errorText(-1, "Nothing to flush"), true);
  return {};
}

void ModelBackend::discard() {
  if (!_batch) return;
  _books.take("held", _batch->size());
  _books.drop("notFlushed", _batch->size());
  _batch.reset();
}

bool ModelBackend::isLogged(const Facts& facts) const {
  const std::string environment = sectionNameOf(facts.device);
  const bool isForced = facts.device.forcesLogging &&
                        (environment == "development" || environment == "halcyon_internal");
  return isForced || (_policy.dnuType == 0 && _maker.consents);
}

Dictionary ModelBackend::body(const std::vector<Dictionary>& records, const Facts& facts) const {
  std::string identifier = _policy.dnuType != 0 ? "OVERRIDE-ID" : "RESPECTED-ID";
  if (_policy.hasCustomID)
    identifier = fmt::format("custom:{}:{}", _policy.customClient, _policy.customService);
  if (_policy.extrasOnInternal != 0 && facts.device.isInternal)
    identifier = facts.device.identifier;
  Array events;
  for (const Dictionary& record : records) events.emplace_back(writable(record));
  return {{"postTime", facts.now}, {"clientId", identifier}, {"events", std::move(events)}};
}

void ModelBackend::post(Dictionary body, std::size_t events, const Message* message,
                        const Facts& facts, const std::shared_ptr<Flush>& flush, bool hasText) {
  const bool isNow = message && isRealtime(message->flag);
  const auto& target = isNow ? _policy.realtimePostURL : _policy.postURL;
  if (!target) {
    _books.drop("noAddress", events);
    if (flush) flush->answerAtOnce(Flush::errorText(-1, "postURL is nil"), true);
    return;
  }
  ExpectedPost expected{.post = {.url = *target, .body = std::move(body), .backend = _name},
                        .events = events};
  auto& headers = expected.post.headers;
  if (_userInfo) {
    if (const auto client = textAt(*_userInfo, kCorvidUserInfoClientName))
      headers["X-CVD-Client-Name"] = *client;
    if (const auto service = textAt(*_userInfo, kCorvidUserInfoServiceName))
      headers["X-CVD-Service-Name"] = *service;
  }
  if (facts.device.isInternal) headers["X-CVD-Internal-Build"] = "1";
  headers["User-Agent"] = fmt::format("Corvid/{} ({}; {})", facts.device.libraryVersion,
                                      facts.device.hardwareType, facts.device.productVersion);
  headers["X-CVD-Client-Version"] = fmt::format("{}", _maker.clientVersion);
  headers["X-CVD-Sender"] = tagOf(_maker.clientType);
  if (message) headers["X-CVD-Event-Map"] = fmt::format("{} {}", message->category, message->type);
  headers["Accept"] = "application/json";
  headers["Content-Type"] = "application/json";
  expected.ends = [backend = weak_from_this(), name = _name, flush, hasText](const Ending& ending) {
    const bool isServersFault = ending.status >= 500 && ending.status < 600;
    if (const auto its = backend.lock(); its && isServersFault) {
      its->_policy.state = State::disabled;
      its->_policy.reason = "disabledByServer";
    }
    if (!flush) return;
    if (isServersFault)
      flush->answerLater(
          Flush::errorText(
              ending.status,
              fmt::format("backend {} disabled by server {} return code", name, ending.status)),
          true);
    else
      flush->answerLater(ending.status == 0 ? Flush::errorText(transportErrorCode, ending.kind)
                                            : Flush::resultText(hasText),
                         ending.status == 0);
  };
  _books.add("underWay", events);
  _books.posts.push_back(std::move(expected));
}

}  // namespace corvid::simulation
