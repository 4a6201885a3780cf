// A record: what leaves the device of an event.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <utility>

#include "backends/https/RecordFields.h"
#include "backends/https/RecordFrame.h"
#include "base/Value.h"
#include "platform/data/JSONText.h"
#include "status/Decision.h"

namespace corvid {

// Kept as a payload in a frame that it shares with others, where it can be; in one piece otherwise.
// Nobody who looks can tell.
class EventRecord {
 public:
  EventRecord() = default;
  // Of one piece.
  EventRecord(Dictionary record) : _own(std::move(record)) {}
  // The frame fits the payload that this one was before the filters.
  EventRecord(Dictionary payload, std::shared_ptr<const RecordFrame> frame,
              const EventNumbers& numbers)
      : _own(std::move(payload)), _frame(std::move(frame)), _numbers(numbers) {}

  // "_method" of it, 0 where it has none.
  std::int32_t method() const;
  // As `footprint` and `mostJSONBytes` say it of the whole.
  std::size_t footprint() const;
  std::size_t mostJSONBytes() const;
  void writeTo(JSONText& text) const;

  Dictionary copy() const;
  // To be changed; it is of one piece from then on.
  Dictionary& whole();
  // Those of its fields whose values may be none of JSON's; they may be changed and erased.
  Dictionary& fieldsToCheck() { return _own; }

 private:
  Dictionary _own;                            // what the frame does not have
  std::shared_ptr<const RecordFrame> _frame;  // null: nothing
  EventNumbers _numbers{};
};

// The record of the event, filtered. The frame is that of the context.
EventRecord makeEventRecord(const Event& event, const RecordContext& context,
                            const std::shared_ptr<const RecordFrame>& frame, KeysChanged& changed);

}  // namespace corvid
