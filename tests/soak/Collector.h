// An event collector that has the faults of a script.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "tests/soak/History.h"
#include "tools/lab/Collectors.h"
#include "tools/lab/FaultPlan.h"
#include "tools/lab/HTTPServer.h"
#include "tools/lab/TLSIdentity.h"

namespace corvid::soak {

// Stays at its port whatever happens to it.
//
// Threads: one; `taken` is called on those of the server.
class Collector {
 public:
  // Of each record that came in: its "mark", empty where it has none, and what became of the post.
  using Taken = std::function<void(const std::string& mark, const Arrival& arrival)>;

  Collector(std::string name, const lab::TLSIdentity& identity, Taken taken);

  const std::string& name() const { return _name; }
  std::string url() const;
  void begin(FaultKind kind);
  void end(FaultKind kind);

 private:
  lab::Answer answer(const lab::Request& request);
  // In the place of the server before, whose connections break.
  void serve(const lab::TLSCertificate& certificate, lab::ConnectionFault fault);
  void plan(Dictionary fault);

  const std::string _name;
  const lab::TLSIdentity& _identity;
  const Taken _taken;
  lab::ReceivedLog _log{"/dev/null"};  // what came is told to `taken`
  const lab::Collectors _collectors{_log};
  lab::FaultPlan _plan;
  std::uint16_t _port = 0;
  std::unique_ptr<lab::HTTPServer> _server;
};

}  // namespace corvid::soak
