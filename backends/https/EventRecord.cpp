#include "backends/https/EventRecord.h"

#include "base/Reading.h"
#include "platform/data/JSON.h"

namespace corvid {

std::int32_t EventRecord::method() const {
  return _frame ? _numbers.method : int32At(_own, "_method");
}

std::size_t EventRecord::footprint() const {
  return corvid::footprint(_own) + (_frame ? _frame->bytes() : 0);
}

std::size_t EventRecord::mostJSONBytes() const {
  return corvid::mostJSONBytes(_own) + (_frame ? _frame->mostBytesWritten() : 0);
}

void EventRecord::writeTo(JSONText& text) const {
  text.beginObject();
  text.addEntries(_own);
  if (_frame) _frame->writeTo(text, _numbers);
  text.endObject();
}

Dictionary EventRecord::copy() const {
  Dictionary record = _own;
  if (_frame) _frame->addTo(record, _numbers);
  return record;
}

Dictionary& EventRecord::whole() {
  if (const auto frame = std::exchange(_frame, nullptr)) frame->addTo(_own, _numbers);
  return _own;
}

EventRecord makeEventRecord(const Event& event, const RecordContext& context,
                            const std::shared_ptr<const RecordFrame>& frame, KeysChanged& changed) {
  const EventFilters& filters = *context.policy.filters;
  const EventNumbers numbers = numbersOf(event, context);
  Dictionary payload = payloadOf(event, context);
  if (frame->fits(payload)) {
    filters.apply(payload, numbers.method, numbers.status, &changed);
    return {std::move(payload), frame, numbers};
  }
  Dictionary record = createEventDictfromPayload(std::move(payload), numbers, context);
  prepareEventForMessage(record, context.userInfo.get(), filters, changed);
  return record;
}

}  // namespace corvid
