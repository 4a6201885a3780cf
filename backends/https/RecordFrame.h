// What the records of one backend have in common.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "backends/https/RecordFields.h"
#include "platform/data/JSONText.h"

namespace corvid {

// The fields that a backend adds to each payload, user info among them. They are made and written
// once, and serve until something changes that they are made from.
//
// Threads: reading from any thread.
class RecordFrame {
 public:
  explicit RecordFrame(const RecordContext& context);

  // Whether the same backend would make this frame now.
  bool isOf(const RecordContext& context) const;
  // Whether a record of this payload is the payload, changed or not by filters, and these fields
  // as they are: none of them has a key of the payload, a filter, or a value that is not for JSON.
  bool fits(const Dictionary& payload) const;

  // Of a frame that fits: the fields, with these numbers among them.
  void addTo(Dictionary& payload, const EventNumbers& numbers) const;
  void writeTo(JSONText& text, const EventNumbers& numbers) const;
  // What they add to the payload's.
  std::size_t bytes() const { return _bytes; }
  std::size_t mostBytesWritten() const { return _mostBytesWritten; }

 private:
  // False where that is not possible.
  bool write();

  Dictionary _fields;  // with the numbers of no event; empty where none fits

  // What it was made from, of that which changes.
  const std::optional<std::string> _combinedSessionID;
  const SharedDictionary _userInfo;
  const std::shared_ptr<const EventFilters> _filters;
  const std::int32_t _timezoneOffset;

  std::string _before;  // as they are written, those before the numbers and those behind
  std::string _behind;
  std::size_t _bytes = 0;
  std::size_t _mostBytesWritten = 0;
  bool _isConstant = false;  // nothing but the numbers differs from record to record
};

}  // namespace corvid
