// Faults that somebody asked the lab's servers for.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <set>
#include <span>
#include <string>

#include "base/Mutex.h"
#include "base/Value.h"
#include "tools/lab/HTTPExchange.h"

namespace corvid::lab {

// Threads   any.
class FaultPlan {
 public:
  // For servers of these names.
  explicit FaultPlan(std::set<std::string> servers) : _servers(std::move(servers)) {}

  // Plans what a server does wrong in its next `times` answers, instead of what was planned before:
  // {"server":NAME,"times":N,"status":N,"body":TEXT,"delay":SECONDS,"redirect":URL,"cutBodyAfter":N,
  // "cutHeadAfter":N,"endless":true,"silent":true,"corrupt":true,"truncate":true}, each of which
  // may be left out but the server. `times` is 1 unless given, -1 lasts until told otherwise. A
  // status comes without a body unless there is one here, a redirect with 302 unless there is a
  // status. "corrupt" changes one byte in the middle of the body, "truncate" leaves out its second
  // half, and the length says so. What cannot be meant is a tools::InputError.
  void set(const Dictionary& request) EXCLUDES(_mutex);

  // What a plan may have, "server" and "times" included.
  static std::span<const char* const> keys();

  // What was planned for the server's next answer, which is this one.
  std::optional<Dictionary> take(const std::string& server) EXCLUDES(_mutex);
  // The answer as a fault that was taken makes it.
  static Answer spoiled(Answer answer, const Dictionary& fault);

  // The plans that are still to be carried out, by server, with how many "times" are left.
  Dictionary plans() EXCLUDES(_mutex);

 private:
  struct Fault {
    std::int64_t times;
    Dictionary request;
  };

  const std::set<std::string> _servers;

  Mutex _mutex;
  std::map<std::string, Fault> _faults GUARDED_BY(_mutex);
};

}  // namespace corvid::lab
