// PostgreSQL from Debian's package, with a cluster of its own.
#pragma once

#include <memory>
#include <string>

#include "tests/support/ChildProcess.h"
#include "tests/support/Scratch.h"

namespace corvid::fleet {

// Everything stands in a scratch folder, and ends with the object. Runs as the package's user where
// this process is the superuser's, since PostgreSQL refuses that one. std::runtime_error where it
// does not come up. One thread.
class ScratchPostgres {
 public:
  ScratchPostgres();
  ~ScratchPostgres();

  // What libpq takes. Over a socket in the folder; nothing listens on a port.
  std::string target() const;

  // SIGKILL to the server, as if it crashed; its own children end themselves.
  void kill();
  void start();

 private:
  ChildProcess::Program asUser(std::vector<std::string> command) const;

  const ScratchFolder _scratch;
  const std::string _programs;  // the folder
  std::unique_ptr<ChildProcess> _server;
};

}  // namespace corvid::fleet
