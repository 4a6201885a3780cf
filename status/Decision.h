// What became of one event or of one post, as far as it is known.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include "base/Value.h"
#include "protocol/Reason.h"
#include "status/Balance.h"

namespace corvid {

// What filters and JSON did to the keys of a record: their names, no values.
class KeysChanged {
 public:
  // What goes past it is left out, so that little is remembered of an event.
  static constexpr std::size_t mostBytes = 160;
  enum class Change : char { removed = 'r', digested = 'd', unwritable = 'u' };

  void add(Change change, std::string_view key);
  void clear() { _packed.clear(); }
  bool empty() const { return _packed.empty(); }
  // In the order of their names.
  std::vector<std::string> names(Change change) const;
  bool operator==(const KeysChanged&) const = default;

 private:
  std::string _packed;  // for each the letter of its change, its name, and a NUL
};

// The backends that verdicts and posts are of, by number.
std::uint8_t numberOfBackend(std::string_view name);

// Of one event, at one of the backends that it was offered to.
struct Verdict {
  std::uint8_t backend = 0;  // as numberOfBackend says
  Outcome outcome = Outcome::dropped;
  Reason reason = Reason::reporting;
  std::uint32_t post = 0;  // 0: none yet
  std::shared_ptr<const KeysChanged> keys{};
  std::shared_ptr<const Dictionary> record{};  // kept only while somebody watches records
};

struct EventDecision {
  static constexpr std::size_t mostBackends = 6;  // as many as there are kinds

  std::uint64_t number = 0;
  double time = 0;
  std::uint64_t session = 0;
  std::uint16_t category = 0;
  std::uint16_t type = 0;
  std::int32_t flag = 0;
  bool isBeingOffered = false;
  std::uint8_t backends = 0;
  Reason withoutBackends = Reason::reporting;  // why it met none
  std::array<Verdict, mostBackends> verdicts{};
};

struct PostDecision {
  static constexpr std::size_t mostErrorBytes = 120;

  std::uint64_t number = 0;
  double time = 0;
  std::uint64_t session = 0;
  std::uint8_t backend = 0;
  std::uint32_t events = 0;
  std::uint64_t bytes = 0;
  std::optional<int> status{};
  double milliseconds = 0;
  std::optional<std::string> error{};
};

using Decision = std::variant<EventDecision, PostDecision>;

std::uint64_t sessionOf(const Decision& decision);

// As `explain` and `tap` show it.
Dictionary toDictionary(const Decision& decision, bool withRecords);

}  // namespace corvid
