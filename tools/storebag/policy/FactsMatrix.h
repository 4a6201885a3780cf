// The facts that tell two storebags apart, taken from their own lists.
#pragma once

#include <array>
#include <cstddef>
#include <functional>
#include <optional>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

#include "backends/https/ClientPolicy.h"
#include "base/Value.h"
#include "tools/storebag/policy/Facts.h"

namespace corvid::storebag {

// How a client names itself; absent: not at all.
struct ClientNames {
  std::optional<std::string> client{};
  std::optional<std::string> service{};
  auto operator<=>(const ClientNames&) const = default;
};

// The entries of a backend, by whom they are for. Views of `clients`, which must outlive it.
class EntryIndex {
 public:
  explicit EntryIndex(const Array& clients);
  // The first that is for that client; nothing where none is.
  std::optional<std::size_t> entryFor(const ClientNames& names) const;

 private:
  using Places = std::vector<std::pair<std::size_t, Addressees>>;
  static std::optional<std::size_t> firstFor(const ClientNames& names, const Places& places);

  std::unordered_map<std::string, Places> _byName;  // by each name that they list, case-folded
  Places _forEverybody;                             // those that list none
};

// Who may meet another entry, or another text of it, in `now` than in `old`: the names that stand
// in the entries of either, and one that stands in none.
std::vector<ClientNames> affectedClients(const Array& old, const Array& now);

// What `old` and `now` of one backend hold for a client; null where there is no entry.
struct EntryPair {
  const Dictionary* old = nullptr;
  const Dictionary* now = nullptr;
};

struct FactsCell {
  Facts facts{};
  // Consent, and of country, product family and hardware type which kind of value it is. The
  // entries say the same in cells of one kind and draw.
  std::array<std::size_t, 4> kind{};
};

// Visits facts that differ in consent, country, product family, hardware type and draw, for which
// the entries may say different things: of values that all entries treat alike, and as before, one;
// of values that they treat otherwise than before, each; of draws one between any two borders. The
// rest of each is as in `base`.
void forEachCell(const std::vector<EntryPair>& entries, const Facts& base,
                 const std::function<void(const FactsCell&)>& visit);

// Events on which other filters may act otherwise: with every key that filters name, of every
// method and status that they name and of one that they do not.
std::vector<SentEvent> probesOf(const EntryPair& entries);

}  // namespace corvid::storebag
