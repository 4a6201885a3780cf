// Which storebags are in force, as far as their server can tell.
#pragma once

#include <map>
#include <string>

#include "base/Mutex.h"
#include "base/Value.h"
#include "tools/lab/StorebagServer.h"

namespace corvid::lab {

// Threads   any.
class StorebagWatch {
 public:
  // `server` is borrowed.
  explicit StorebagWatch(const StorebagServer& server) : _server(server) {}

  // That an answer with this status was made for the storebag; `isSpoiled` where a fault then
  // changed it, so that nobody can use it.
  void note(const std::string& name, int status, bool isSpoiled) EXCLUDES(_mutex);

  // For each storebag that is published, by name: {"name":…,"version":…,"modified":SECONDS,
  // "backends":[…],"error":…,"fetches":N,"lastFetch":SECONDS,"lastStatus":N,"inForce":…}, where
  // "version" and "backends" are what the file says now, "error" why it cannot be served, "inForce"
  // the version that was handed out, or found unchanged (304), last; times are since 1970. What is
  // not known is left out.
  Array storebags() EXCLUDES(_mutex);

 private:
  struct Fetches {
    int count = 0;
    int status = 0;
    double time = 0;
    std::string version{};  // handed out last
  };

  const StorebagServer& _server;
  Mutex _mutex;
  std::map<std::string, Fetches> _fetches GUARDED_BY(_mutex);
};

}  // namespace corvid::lab
