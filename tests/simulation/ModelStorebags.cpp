#include "tests/simulation/ModelStorebags.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <cmath>

#include "base/Reading.h"

namespace corvid::simulation {

namespace {

constexpr double pauseAfterFailure = 900;
constexpr std::int64_t day = 86400;

struct ClientType {
  const char* storebag;
  const char* tag;
};
constexpr std::array<ClientType, 18> clientTypes{{
    {"", "ZB"},
    {"", "ZC"},
    {"", "ZDN"},
    {"", "ZF"},
    {"", "ZG"},
    {"lumen", "ZH"},
    {"tessel", "ZJ"},
    {"parlor", "ZK"},
    {"orrery", "ZL"},
    {"cadence", "ZM"},
    {"quill", "ZN"},
    {"parlor", "ZP"},
    {"ledger", "ZQRA"},
    {"parlor", "ZRSTU"},
    {"tessel", "ZJ-VWX"},
    {"tessel", "ZJ-YQBDE"},
    {"folio", "ZTUVWXY"},
    {"reel", "ZWXYZB"},
}};

bool isOfTable(std::int32_t type) { return type >= 0 && type < int{clientTypes.size()}; }

// What stands in for the storebag of that name where its server cannot be reached.
const Dictionary& parlorFallback() {
  static const Dictionary section{{"metrix", Dictionary{{"active", true}}}};
  static const Dictionary storebag{{"halcyon_internal", section},
                                   {"development", section},
                                   {"release", section},
                                   {"version", "1.0.0-Parlor-Fallback"},
                                   {"refresh_cycle", 3600}};
  return storebag;
}

}  // namespace

std::optional<std::string> storebagNameOf(std::int32_t clientType) {
  if (!isOfTable(clientType)) return std::nullopt;
  const std::string name = clientTypes[static_cast<std::size_t>(clientType)].storebag;
  return name.empty() ? std::nullopt : std::optional(name);
}

std::string tagOf(std::int32_t clientType) {
  return isOfTable(clientType) ? clientTypes[static_cast<std::size_t>(clientType)].tag : "";
}

std::string sectionNameOf(const Device& device) {
  constexpr std::array<const char*, 5> names{"", "development", "halcyon_internal", "seed",
                                             "release"};
  if (!device.environmentPreference) return device.isInternal ? names[2] : names[4];
  const std::int64_t type = *device.environmentPreference;
  return type >= 0 && type < 5 ? names.at(static_cast<std::size_t>(type)) : names[2];
}

ModelStorebags::Found ModelStorebags::storebag(std::int32_t clientType, std::uint32_t user,
                                               const Facts& facts, std::vector<Fetch>& fetches) {
  const auto name = storebagNameOf(clientType);
  Found found;
  if (!name) {
    found.reason = "unknownClientType";
    const auto pauses = [&](double failed, double now) {
      return std::abs(now - failed) < pauseAfterFailure;
    };
    const auto failed = _namelessFailures.find(user);
    if (failed != _namelessFailures.end() && pauses(failed->second, facts.begin)) return found;
    if (clientType != 0) {
      fetches.push_back({fmt::format("{}/(null)?version={}", facts.device.storebagURL,
                                     facts.device.libraryVersion),
                         std::nullopt});
      found.waited = true;
    }
    const double now = found.waited ? facts.now : facts.begin;
    // Where a clock goes back, a pause that was over stays over.
    std::erase_if(_namelessFailures, [&](const auto& entry) { return !pauses(entry.second, now); });
    _namelessFailures[user] = now;
    return found;
  }
  const bool isKnown = _records.contains(*name);
  Record& record = _records[*name];
  const double age = std::abs(facts.begin - record.time);
  const bool isFresh = record.succeeded && age < static_cast<double>(record.maxAge);
  const bool pauses = !record.succeeded && age < pauseAfterFailure;
  if (!isKnown || (!isFresh && !pauses)) {
    fetch(*name, record, facts, fetches);
    found.waited = true;
  }
  if (record.section) {
    found.section = &*record.section;
    found.version = record.version;
  } else {
    found.reason = record.fault.empty() ? "storebagMalformed" : record.fault;
  }
  return found;
}

void ModelStorebags::fetch(const std::string& name, Record& record, const Facts& facts,
                           std::vector<Fetch>& fetches) {
  using Body = FetchAnswer::Body;
  fetches.push_back(
      {fmt::format("{}/{}?version={}", facts.device.storebagURL, name, facts.device.libraryVersion),
       record.lastModified});
  const FetchAnswer answer = _server.answer(name, record.lastModified);
  record.time = facts.now;
  record.succeeded = false;
  record.maxAge = 0;
  record.fault.clear();
  if (!answer.isAnswer) {
    record.fault = "storebagUnreachable";
    if (name == "parlor") take(record, parlorFallback(), facts);
    return;
  }
  record.maxAge = answer.maxAge.value_or(day);
  if (answer.lastModified) {
    if (answer.body == Body::nothing && record.lastModified) {
      record.succeeded = true;
      // Where nothing is kept that could be unchanged, the whole is asked for the next time.
      if (!record.section) record.lastModified.reset();
      return;
    }
    record.lastModified = answer.lastModified;
  }
  switch (answer.body) {
    case Body::nothing:
    case Body::noStorebag: record.fault = "storebagMalformed"; return;
    case Body::forged: record.fault = "storebagUnverified"; return;
    case Body::whole:
      if (!facts.keyIsGood) {
        record.fault = "storebagUnverified";
        return;
      }
      take(record, answer.storebag->content, facts);
  }
}

void ModelStorebags::take(Record& record, const Dictionary& storebag, const Facts& facts) {
  const std::string name = sectionNameOf(facts.device);
  const Dictionary* section = dictionaryAt(storebag, name);
  if (!section && name == "seed") section = dictionaryAt(storebag, "release");
  if (!section) {
    record.fault = "noSectionForEnvironment";
    return;
  }
  record.fault.clear();
  record.succeeded = true;
  record.section = *section;
  record.version = textAt(storebag, "version").value_or("");
  if (const auto cycle = integerAt(storebag, "refresh_cycle"))
    record.maxAge = std::min<std::int64_t>(*cycle, day);
}

}  // namespace corvid::simulation
