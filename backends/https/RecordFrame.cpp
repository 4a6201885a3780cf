#include "backends/https/RecordFrame.h"

#include <algorithm>
#include <string_view>

#include "base/Reading.h"
#include "platform/Platform.h"
#include "platform/data/JSON.h"

namespace corvid {

namespace {

bool isNumbers(std::string_view key) {
  bool found = false;
  EventNumbers{}.each([&](std::string_view name, auto) { found = found || name == key; });
  return found;
}

bool isForJSON(const Value& value) {
  switch (value.type()) {
    case Value::Type::boolean:
    case Value::Type::integer:
    case Value::Type::real:
    case Value::Type::string: return true;
    default: return false;
  }
}

}  // namespace

RecordFrame::RecordFrame(const RecordContext& context)
    : _fields(createEventDictfromPayload({}, {}, context)),
      _combinedSessionID(context.combinedSessionID),
      _userInfo(context.userInfo),
      _filters(context.policy.filters),
      _timezoneOffset(int32At(_fields, "_timezoneOffset")) {
  const auto differs = [](const Dictionary::Entry& entry) { return isNumbers(entry.key); };
  const auto isPlain = [](const Dictionary::Entry& entry) { return isForJSON(entry.value); };
  const bool keepsNumbers = !_userInfo || std::ranges::none_of(*_userInfo, differs);
  if (_userInfo) _fields.addEntriesFrom(*_userInfo);
  _isConstant = keepsNumbers && !_filters->mention(_fields) &&
                std::ranges::all_of(_fields, isPlain) && write();
  if (!_isConstant) _fields = {};
}

bool RecordFrame::write() {
  constexpr std::size_t braces = 2;
  Dictionary before;
  Dictionary behind;
  for (bool isBehind = false; const auto& [key, value] : _fields)
    if (isNumbers(key))
      isBehind = true;
    else
      (isBehind ? behind : before).set(key, value);
  const auto textBefore = writeJSON(before);
  const auto textBehind = writeJSON(behind);
  if (!textBefore || !textBehind) return false;
  _before = textBefore->substr(1, textBefore->size() - braces);
  _behind = textBehind->substr(1, textBehind->size() - braces);
  _bytes = footprint(_fields);
  _mostBytesWritten = mostJSONBytes(_fields) - braces;
  return true;
}

bool RecordFrame::isOf(const RecordContext& context) const {
  return _userInfo == context.userInfo && _filters == context.policy.filters &&
         _combinedSessionID == context.combinedSessionID &&
         _timezoneOffset ==
             context.platform.locale().secondsFromGMT(context.platform.clock().now());
}

bool RecordFrame::fits(const Dictionary& payload) const {
  const auto isTaken = [this](const Dictionary::Entry& entry) {
    return _fields.contains(entry.key);
  };
  return _isConstant && std::ranges::none_of(payload, isTaken);
}

void RecordFrame::addTo(Dictionary& payload, const EventNumbers& numbers) const {
  payload.addEntriesFrom(_fields);
  numbers.each([&](const char* key, const auto& number) { payload.set(key, number); });
}

void RecordFrame::writeTo(JSONText& text, const EventNumbers& numbers) const {
  text.addWritten(_before);
  numbers.each([&](const char* key, const auto& number) { text.add(key, number); });
  text.addWritten(_behind);
}

}  // namespace corvid
