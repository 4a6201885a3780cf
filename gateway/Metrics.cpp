#include "gateway/Metrics.h"

#include <span>

#include "base/MetricsText.h"

namespace corvid::fleet {

namespace {

class Text : public MetricsText {
 public:
  void counter(std::string_view name, std::string_view help, std::uint64_t value) {
    begin(name, "counter", help);
    add("_total", value);
  }
  void gauge(std::string_view name, std::string_view help, std::uint64_t value) {
    begin(name, "gauge", help);
    add("", value);
  }
  void routes(std::span<const std::uint64_t, routeCount> counts) {
    for (std::size_t i = 0; i < routeCount; ++i) add("_total", "route", routeWords[i], counts[i]);
  }
  void rules(std::span<const std::uint64_t, ruleCount> counts, bool clientsFault) {
    for (const RuleText& text : ruleTexts())
      if (isClientsFault(text.rule) == clientsFault)
        add("_total", "reason", text.word, counts[static_cast<std::size_t>(text.rule)]);
  }
};

}  // namespace

std::string metricsText(const Ledger::Balance& balance, const Gauges& gauges) {
  Text text;
  text.begin("corvid_gateway_received", "counter", "Requests whose head was read or refused.");
  text.routes(balance.received);
  text.begin("corvid_gateway_acknowledged", "counter", "Of those, stored and answered so.");
  text.routes(balance.acknowledged);
  text.begin("corvid_gateway_refused", "counter", "Refused for the client's fault.");
  text.rules(balance.byRule, true);
  text.begin("corvid_gateway_failed", "counter", "Not stored for another reason.");
  text.rules(balance.byRule, false);
  text.gauge("corvid_gateway_held", "Received, and neither acknowledged, refused nor failed yet.",
             balance.held);
  text.counter("corvid_gateway_events", "Events in posts that were acknowledged.", balance.events);
  text.counter("corvid_gateway_read_bytes", "Read from clients.", balance.bytes);
  text.counter("corvid_gateway_published_again",
               "Messages that were published once more because the log did not answer.",
               balance.publishedAgain);
  text.gauge("corvid_gateway_connections", "Connections that are open.", balance.connections);
  text.counter("corvid_gateway_connections_turned_away",
               "Connections that were closed at once, because there were too many.",
               balance.connectionsTurnedAway);
  text.gauge("corvid_gateway_waiting", "Messages that wait for the log's acknowledgement.",
             gauges.waiting);
  text.gauge("corvid_gateway_memory_bytes", "Taken by requests under way.", gauges.memory);
  text.gauge("corvid_gateway_memory_limit_bytes", "The most that they may take.",
             gauges.memoryLimit);
  text.gauge("corvid_gateway_clients", "Clients that are remembered.", gauges.clients);
  text.gauge("corvid_gateway_log_ready", "1 where the log takes messages.", gauges.logIsReady);
  return std::move(text).end();
}

}  // namespace corvid::fleet
