#include "tests/soak/Assignment.h"

#include <algorithm>
#include <set>
#include <utility>

namespace corvid::soak {

namespace {

// Groups of events on one side, words on the other: each step moves along a path from a group with
// events left over to a word with room, taking back what stands in the way.
class Flow {
 public:
  Flow(const std::map<Words, std::int64_t>& missing, std::map<std::string, std::int64_t> room)
      : _left(missing), _room(std::move(room)) {}

  std::int64_t rest() {
    std::int64_t rest = 0;
    for (auto& [group, count] : _left) {
      std::int64_t moved = 1;
      while (count > 0 && moved > 0) {
        _seen.clear();
        moved = push(group, count);
        count -= moved;
      }
      rest += count;
    }
    return rest;
  }

 private:
  std::int64_t push(const Words& group, std::int64_t most) {
    for (const std::string& word : group) {
      if (!_seen.insert(word).second) continue;
      std::int64_t moved = std::min(most, _room[word]);
      _room[word] -= moved;
      for (auto other = _placed[word].begin(); moved == 0 && other != _placed[word].end();
           ++other) {
        if (other->second == 0 || other->first == group) continue;
        moved = push(other->first, std::min(most, other->second));
        other->second -= moved;
      }
      if (moved == 0) continue;
      _placed[word][group] += moved;
      return moved;
    }
    return 0;
  }

  std::map<Words, std::int64_t> _left;
  std::map<std::string, std::int64_t> _room;
  std::map<std::string, std::map<Words, std::int64_t>> _placed;
  std::set<std::string> _seen;
};

}  // namespace

std::int64_t unassigned(const std::map<Words, std::int64_t>& missing,
                        const std::map<std::string, std::int64_t>& counted) {
  return Flow(missing, counted).rest();
}

}  // namespace corvid::soak
