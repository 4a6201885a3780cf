// The control socket, from the side of who looks.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace corvid::ctl {

// One connection to the daemon's control socket, whose calls are made one after the other. It never
// starts a daemon by itself.
//
// Threads   One.
// Errors    CallError (Client.h), from every operation: the daemon cannot be reached, or closed the
//           connection because this user may not look.
class ControlClient {
 public:
  // Of the daemon below `root`; empty for the machine itself.
  explicit ControlClient(const std::string& root);
  ~ControlClient();

  std::string status();                         // JSON
  std::string sessions(std::uint64_t session);  // JSON; 0: all
  // JSON, an object each. 0: of all sessions; all that is known.
  std::vector<std::string> explain(std::uint64_t session, std::uint32_t last);
  // From now on nextLines has what is decided.
  void watch(std::uint64_t session, bool payload);
  // Waits a second at most; nothing where nothing was decided meanwhile.
  std::vector<std::string> nextLines();
  std::string metrics();
  // What is in force of it as a property list; empty where there is none. Also a CallError where
  // this user may not see it.
  std::string storebag(const std::string& name);
  // Names of what was touched. -1: every storebag.
  std::vector<std::string> refresh(std::int32_t clientType, bool states);
  void setLogLevel(int level, std::uint32_t seconds);

 private:
  struct Link;
  template <class Request>
  auto answerOf(Request request);

  const std::string _path;
  std::unique_ptr<Link> _link;
};

}  // namespace corvid::ctl
