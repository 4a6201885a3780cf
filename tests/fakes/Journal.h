// What several fakes were asked, in one order.
#pragma once

#include <mutex>
#include <string>
#include <utility>
#include <vector>

namespace corvid {

class Journal {
 public:
  void add(std::string entry) {
    std::lock_guard lock(_mutex);
    _entries.push_back(std::move(entry));
  }
  std::vector<std::string> entries() const {
    std::lock_guard lock(_mutex);
    return _entries;
  }
  void clear() {
    std::lock_guard lock(_mutex);
    _entries.clear();
  }

 private:
  mutable std::mutex _mutex;
  std::vector<std::string> _entries;
};

}  // namespace corvid
