// The transfers under way and the connections that they leave behind.
#pragma once

#include <chrono>
#include <cstddef>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "platform/http/CurlLibrary.h"
#include "platform/http/Exchange.h"
#include "platform/http/KeptConnections.h"
#include "platform/http/Transfer.h"

namespace corvid {

// libcurl's multi handle, made by the first transfer. Only where libcurl is there.
//
// Threads: the client's own, save wake().
class CurlMulti {
 public:
  struct Ended {
    Exchange exchange;
    HTTPOutcome outcome;
  };

  CurlMulti(std::optional<std::string> caFile, std::size_t mostConnections)
      : _caFile(std::move(caFile)), _mostConnections(mostConnections) {}

  // Of the exchanges that begin from now on.
  void trust(std::optional<std::string> caFile);

  std::size_t active() const { return _transfers.size() - _unused.size(); }
  void begin(Exchange exchange, Exchange::Time now);
  // Moves all on as far as they get without waiting, and gives up those that have ended.
  std::vector<Ended> perform(Exchange::Time now);
  // Waits until one can go on, for wake(), or for so long.
  void sleep(std::chrono::milliseconds longest);
  // Any thread, while the client's sleeps or is about to.
  void wake() { curl().multi_wakeup(_multi.get()); }
  // Gives up all that have not ended.
  std::vector<Exchange> abandon();
  // Closes the connections and frees their memory. None must be active.
  void close();

 private:
  struct Cleanup {
    void operator()(CURLM* multi) const { curl().multi_cleanup(multi); }
  };

  void open();
  Exchange release(Transfer& transfer);

  std::optional<std::string> _caFile;
  std::size_t _timesTrusted = 0;
  const std::size_t _mostConnections;
  KeptConnections _keptConnections;
  std::vector<std::unique_ptr<Transfer>> _transfers;  // as many as were active at once
  std::vector<Transfer*> _unused;
  std::unique_ptr<CURLM, Cleanup> _multi;  // absent while there are no connections
};

}  // namespace corvid
