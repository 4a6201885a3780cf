// Which storebag a client gets, and when the server is asked for another: docs/storebag.md.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "base/Value.h"
#include "tests/simulation/Facts.h"
#include "tests/simulation/Step.h"
#include "tests/simulation/StorebagServer.h"

namespace corvid::simulation {

// The table of client types: the storebag's name, and the tag that records carry.
std::optional<std::string> storebagNameOf(std::int32_t clientType);
std::string tagOf(std::int32_t clientType);
// The name of the section that a device of this kind takes; empty for none.
std::string sectionNameOf(const Device& device);

// Those of one process. Threads: one.
class ModelStorebags {
 public:
  explicit ModelStorebags(const StorebagServer& server) : _server(server) {}

  struct Found {
    const Dictionary* section = nullptr;  // null: none, for the reason
    std::string reason{};
    std::string version{};
    bool waited = false;  // a server was asked: it is later now
  };
  // `user` is whose client asks.
  Found storebag(std::int32_t clientType, std::uint32_t user, const Facts& facts,
                 std::vector<Fetch>& fetches);

 private:
  struct Record {
    std::optional<Dictionary> section{};
    std::string version{};
    double time = 0;
    bool succeeded = false;
    std::int64_t maxAge = 0;
    std::optional<std::string> lastModified{};
    std::string fault{};
  };

  void fetch(const std::string& name, Record& record, const Facts& facts,
             std::vector<Fetch>& fetches);
  static void take(Record& record, const Dictionary& storebag, const Facts& facts);

  const StorebagServer& _server;
  std::map<std::string, Record> _records;
  std::map<std::uint32_t, double> _namelessFailures;  // when, by user
};

}  // namespace corvid::simulation
