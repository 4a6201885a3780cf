// The journal's native protocol: one datagram an entry, made of fields.
//
// It is spoken here directly: it is documented as stable and small, while loading libsystemd costs
// 1 MB of resident memory.
#pragma once

#include <chrono>
#include <string>
#include <string_view>

#include "base/Descriptor.h"
#include "base/Mutex.h"

namespace corvid {

// Adds the field to an entry; the value may be any bytes. `name`: upper-case ASCII letters, digits
// and "_", no digit first.
void appendJournalField(std::string& entry, std::string_view name, std::string_view value);

// The way to a journal, opened when it is first needed and again each time when the journal has
// come back under its path.
//
// Threads: any; entries of one thread keep their order.
class JournalSocket {
 public:
  // How long a journal that takes nothing holds up an entry. Until it has taken one again, those
  // that follow are not held up.
  static constexpr std::chrono::milliseconds patience{250};

  explicit JournalSocket(std::string path) : _path(std::move(path)) {}

  // Whether a journal listens.
  bool isThere() EXCLUDES(_mutex);
  // 0, or the system's error number; the entry is lost then.
  int send(std::string_view entry) EXCLUDES(_mutex);

 private:
  // Both: 0, or the system's error number.
  int connect() REQUIRES(_mutex);
  int sendOnce(std::string_view entry) REQUIRES(_mutex);

  const std::string _path;
  Mutex _mutex;
  Descriptor _socket GUARDED_BY(_mutex);
  bool _isFull GUARDED_BY(_mutex) = false;
};

}  // namespace corvid
