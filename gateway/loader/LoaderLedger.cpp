#include "gateway/loader/LoaderLedger.h"

#include <string_view>
#include <utility>

#include "base/MetricsText.h"

namespace corvid::fleet {

void LoaderLedger::decided(const StoredCounts& counts) {
  _stored += counts.stored;
  _repeated += counts.repeated;
  _rejected += counts.rejected;
  _rows += counts.rows;
  _held -= counts.stored + counts.repeated + counts.rejected;
}

std::string LoaderLedger::metrics() const {
  MetricsText text;
  const auto add = [&](std::string_view name, std::string_view type, std::string_view help,
                       std::uint64_t value) {
    text.begin(name, type, help);
    text.add(type == "counter" ? "_total" : "", value);
  };
  add("corvid_loader_received", "counter", "Messages that were read from the log.", _received);
  add("corvid_loader_stored", "counter", "Of those, stored as rows.", _stored);
  add("corvid_loader_repeated", "counter", "Of those, known by their ID.", _repeated);
  add("corvid_loader_rejected", "counter", "Of those, kept apart with a reason.", _rejected);
  add("corvid_loader_held", "gauge", "Of those, not decided yet.", _held);
  add("corvid_loader_rows", "counter", "Rows of events and log data.", _rows);
  add("corvid_loader_failures", "counter", "Times that the log or the database was lost.",
      _failures);
  add("corvid_loader_reading", "gauge", "1 where both answer.", _isReading ? 1 : 0);
  return std::move(text).end();
}

}  // namespace corvid::fleet
