// A daemon with everything around it that a soak can spoil.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "base/Value.h"
#include "tests/e2e/DaemonProcess.h"
#include "tests/e2e/Operator.h"
#include "tests/soak/Collector.h"
#include "tests/soak/History.h"
#include "tests/soak/SmallDisk.h"
#include "tests/soak/WallClock.h"
#include "tests/support/SigningKeys.h"
#include "tools/lab/Lab.h"
#include "tools/lab/TLSIdentity.h"

namespace corvid::soak {

// Threads: one.
class Stand {
 public:
  // `keepsStorebags` is a setting of the daemon's deployment. Without `hasSmallDisk` the daemon's
  // folder is an ordinary one, which is never full.
  Stand(bool keepsStorebags, bool hasSmallDisk);

  // Whether the fault can be had on this machine and in this build.
  bool canHave(FaultKind kind) const;
  // Of servers, of the clock and of the disk; of the daemon only that it is frozen or reloads.
  void begin(const Fault& fault);
  void end(const Fault& fault);

  // false where it does not serve.
  bool startDaemon();
  DaemonProcess& daemon() { return *_daemon; }
  // What `corvidctl status` says; nothing where it says nothing.
  std::optional<Dictionary> status() const;
  // Storebags are fetched anew, by a daemon that is frozen once it goes on.
  void refresh();

  // Lines of the daemons' log, and records that arrived, that were not taken before.
  std::vector<std::string> takeLog();
  struct Record {
    std::string mark;
    Arrival arrival;
  };
  std::vector<Record> takeArrivals();

  const std::string& path() const { return _root.path(); }
  // Ends the daemon, and copies all files to where the end of this object does not remove them;
  // says where that is.
  std::string keep();
  // Removes what the daemon has written for people to read.
  void cleanUp() const;

 private:
  Collector* collectorNamed(const std::string& name);
  void spoilStorebags(FaultKind kind);
  void mendStorebags();

  ScratchLab _root;
  std::optional<SmallDisk> _disk;
  WallClock _clock{_root.path("wall-clock")};
  lab::Lab _lab{_root.path()};
  lab::TLSIdentity _identity{_lab.root().tlsFolder()};
  std::mutex _mutex;
  std::vector<Record> _arrivals;  // by _mutex
  std::vector<std::unique_ptr<Collector>> _collectors;
  Operator _operator{_root.path()};
  std::optional<DaemonProcess> _daemon;
  bool _isFrozen = false;
  bool _refreshIsDue = false;  // once it is not
  std::size_t _logRead = 0;
};

}  // namespace corvid::soak
