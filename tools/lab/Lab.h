// Every server that corvidd talks to, on one machine.
#pragma once

#include <cstdint>
#include <optional>
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
#include "tools/lab/StorebagWatch.h"
#include "tools/lab/TLSIdentity.h"
#include "tools/lab/WebPage.h"

namespace corvid::lab {

// Lays out a root, starts the servers, writes what arrives to DIR/lab/received.jsonl.
//
// The storebag server ("storebags") and the report server with its collectors ("events",
// "realtime", "logData" and "upload") speak TLS under the lab's own authority. A dashboard server
// takes packets. A control server speaks plain HTTP: POST /fault with a JSON object plans a fault
// (FaultPlan; for the server "dashboard" DashboardServer::setFaults). Where it is wanted another
// one shows all this in a browser (WebPage).
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
    bool hasPage = false;
    std::uint16_t pagePort = 0;
  };

  explicit Lab(const std::string& root) : Lab(root, Options{}) {}
  Lab(const std::string& root, Options options);

  // {"root":…,"storebags":URL,"events":URL,"realtime":URL,"logData":URL,
  // "upload":URL,"dashboard":"ADDRESS:PORT","control":URL,"received":FILE}, and
  // "web":URL where there is a page
  Dictionary addresses() const;
  FaultPlan& faults() { return _faults; }
  HTTPServer& storebags() { return _storebagServer; }
  HTTPServer& reports() { return _reportServer; }
  DashboardServer& dashboard() { return _dashboard; }
  const LabRoot& root() const { return _root; }

 private:
  Answer storebag(const Request& request);
  Answer report(const Request& request);
  Answer control(const Request& request);
  // What is planned by this request's body.
  Answer plan(const Request& request);
  // The answer with the fault that is due for it. The page shows it with `entry`, which says what
  // came where that was written down.
  Answer finish(const std::string& server, const Request& request, Answer answer, Dictionary entry);
  void showFaults();
  void showStorebags();
  WebPage::Lab forPage();

  const std::string _rootFolder;
  const LabRoot _root;
  const TLSIdentity _identity;
  const StorebagSigner _signer;
  ReceivedLog _received;
  std::optional<Feed> _feed;  // where there is a page
  FaultPlan _faults{{"storebags", "events", "realtime", "logData", "upload"}};
  Collectors _collectors;
  const StorebagServer _storebagFolder;
  StorebagWatch _storebagWatch{_storebagFolder};
  // The servers come last: they stop before what their handlers use.
  DashboardServer _dashboard;
  HTTPServer _reportServer;
  HTTPServer _storebagServer;
  HTTPServer _controlServer;
  std::optional<WebPage> _page;
};

}  // namespace corvid::lab
