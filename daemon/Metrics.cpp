#include "daemon/Metrics.h"

#include <fmt/format.h>

#include "base/MetricsText.h"

namespace corvid {

namespace {

class Text : public MetricsText {
 public:
  void addReasons(const std::array<std::uint64_t, reasonCount>& counts) {
    for (const ReasonText& text : reasonTexts)
      if (text.reason != Reason::reporting)
        add("_total", "reason", text.word, counts[static_cast<std::size_t>(text.reason)]);
  }
};

}  // namespace

std::string metricsText(const Ledger::Totals& totals, std::size_t sessions) {
  const Balance& balance = totals.balance;
  Text text;
  text.begin("corvid_events_accepted", "counter",
             "Events, each once for each backend that it was offered to.");
  text.add("_total", balance.accepted);
  text.begin("corvid_events_delivered", "counter",
             "Of those, answered with 2xx or taken by an adaptor.");
  text.add("_total", balance.delivered);
  text.begin("corvid_events_refused", "counter", "Answered with another status.");
  for (const auto& [status, count] : balance.refused)
    text.add("_total", "status", fmt::format("{}", status), count);
  text.begin("corvid_events_failed", "counter", "Posted without an answer.");
  for (std::size_t kind = 0; kind < httpFailureCount; ++kind)
    if (static_cast<HTTPFailure>(kind) != HTTPFailure::withdrawn)
      text.add("_total", "kind", wordOf(static_cast<HTTPFailure>(kind)), balance.failed[kind]);
  text.begin("corvid_events_dropped", "counter", "Not posted.");
  text.addReasons(balance.dropped);
  text.begin("corvid_events_held", "gauge", "Waiting in batches.");
  text.add("", balance.held);
  text.begin("corvid_events_under_way", "gauge", "Being posted.");
  text.add("", balance.underWay);
  text.begin("corvid_sessions", "gauge", "Clients that are connected.");
  text.add("", sessions);
  text.begin("corvid_sessions_silent", "counter",
             "States of backends that were computed, and sessions without backends, that keep "
             "events back.");
  text.addReasons(totals.silent);
  text.begin("corvid_connections_refused", "counter", "Connections that were closed at once.");
  text.addReasons(totals.refusedConnections);
  text.begin("corvid_tap_lines_lost", "counter", "Lines that a watcher did not take in time.");
  text.add("_total", totals.linesLost);
  return std::move(text).end();
}

}  // namespace corvid
