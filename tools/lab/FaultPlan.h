// Faults that somebody asked the lab's servers for.
#pragma once

#include <map>
#include <set>
#include <string>

#include "base/Mutex.h"
#include "base/Result.h"
#include "base/Value.h"
#include "tools/lab/HTTPExchange.h"

namespace corvid::lab {

// What a server does wrong, for its next `times` requests (negative: until told otherwise).
struct Fault {
  int times = 1;
  std::optional<int> status{};        // instead of the right one, with an empty body
  std::optional<std::string> body{};  // instead of the right one
  std::chrono::milliseconds delay{0};
  std::optional<std::string> redirect{};  // with status 302 unless `status` is another
  std::optional<std::size_t> cutBodyAfter{};
  std::optional<std::size_t> cutHeadAfter{};
  bool endless = false;
  bool silent = false;
  bool corrupt = false;   // one byte in the middle of the body is changed
  bool truncate = false;  // the second half of the body is missing, the length says so
};

// Threads   any.
class FaultPlan {
 public:
  // For servers of these names.
  explicit FaultPlan(std::set<std::string> servers) : _servers(std::move(servers)) {}

  void set(const std::string& server, Fault fault) EXCLUDES(_mutex);
  // From
  // {"server":NAME,"times":N,"status":N,"body":TEXT,"delay":SECONDS,"redirect":URL,"cutBodyAfter":N,
  // "cutHeadAfter":N,"endless":true,"silent":true,"corrupt":true,"truncate":true}; everything but
  // the server may be left out. The failure says what of it cannot be meant.
  Result<bool> set(const Dictionary& request) EXCLUDES(_mutex);

  // The answer as the server's fault, if one is due, makes it.
  Answer apply(const std::string& server, Answer answer) EXCLUDES(_mutex);

 private:
  Fault faultFrom(const Dictionary& request) const;

  const std::set<std::string> _servers;

  Mutex _mutex;
  std::map<std::string, Fault> _faults GUARDED_BY(_mutex);
};

}  // namespace corvid::lab
