// Every server that corvidd talks to, on one machine.
#pragma once

#include <cstdint>
#include <string>

#include "base/Value.h"
#include "tools/lab/Collectors.h"
#include "tools/lab/DashboardServer.h"
#include "tools/lab/FaultPlan.h"
#include "tools/lab/HTTPServer.h"
#include "tools/lab/LabRoot.h"
#include "tools/lab/Received.h"
#include "tools/lab/StorebagServer.h"
#include "tools/lab/StorebagSigner.h"
#include "tools/lab/TLSIdentity.h"

namespace corvid::lab {

// Lays out a root, starts the servers, writes what arrives to DIR/lab/received.jsonl.
//
// The storebag server ("storebags") and the report server with its collectors ("events",
// "realtime", "logData" and "upload") speak TLS under the lab's own authority. A dashboard server
// takes packets. A last server speaks plain HTTP: POST /fault with a JSON object plans a fault
// (FaultPlan; for the server "dashboard" DashboardServer::setFaults).
//
// Threads   construction and destruction by the owner; the rest from any thread.
// Errors    std::runtime_error where a file cannot be written or a port is taken.
class Lab {
 public:
  struct Options {
    std::uint16_t storebagPort = 0;
    std::uint16_t reportPort = 0;
    std::uint16_t controlPort = 0;
    std::uint16_t dashboardPort = 0;
    int maxAge = 86400;  // seconds, of the storebags
  };

  explicit Lab(const std::string& root) : Lab(root, Options{}) {}
  Lab(const std::string& root, Options options);

  // {"root":…,"storebags":URL,"events":URL,"realtime":URL,"logData":URL,
  // "upload":URL,"dashboard":"ADDRESS:PORT","control":URL,"received":FILE}
  Dictionary addresses() const;
  FaultPlan& faults() { return _faults; }
  HTTPServer& storebags() { return _storebagServer; }
  HTTPServer& reports() { return _reportServer; }
  DashboardServer& dashboard() { return _dashboard; }
  const LabRoot& root() const { return _root; }

 private:
  Answer report(const Request& request);
  Answer control(const Request& request);

  const std::string _rootFolder;
  const LabRoot _root;
  const TLSIdentity _identity;
  const StorebagSigner _signer;
  ReceivedLog _received;
  FaultPlan _faults{{"storebags", "events", "realtime", "logData", "upload"}};
  Collectors _collectors;
  const StorebagServer _storebagFolder;
  // The servers come last: they stop before what their handlers use.
  DashboardServer _dashboard;
  HTTPServer _reportServer;
  HTTPServer _storebagServer;
  HTTPServer _controlServer;
};

}  // namespace corvid::lab
