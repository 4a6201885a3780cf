#include "tools/lab/Feed.h"

#include <fmt/format.h>

#include <random>
#include <utility>

#include "base/Reading.h"
#include "platform/data/JSON.h"

namespace corvid::lab {

namespace {

// JSON text of an entry, without what only fills it where it is long.
std::string textOf(const Dictionary& entry) {
  std::string text = writeJSON(entry).value_or("");
  if (!text.empty() && text.size() <= Feed::shownBytes) return text;
  Dictionary brief{{"note", text.empty() ? "something that JSON cannot hold"
                                         : fmt::format("{} bytes, too many to show", text.size())}};
  for (const char* key : {"server", "bytes", "status", "answerBytes", "time"})
    if (const Value* value = entry.find(key)) brief.set(key, *value);
  return writeJSON(brief).value_or("{}");
}

}  // namespace

Feed::Feed() : _run(fmt::format("{:08x}", std::random_device()())) {}

void Feed::add(Dictionary entry) {
  const std::chrono::duration<double> now = std::chrono::system_clock::now().time_since_epoch();
  entry.set("time", now.count());
  std::string text = textOf(entry);
  {
    const MutexLock lock(_mutex);
    ++_lastEntry;
    _bytes += text.size();
    _entries.push_back(std::move(text));
    while (_entries.size() > mostEntries || (_bytes > mostBytes && _entries.size() > 1)) {
      _bytes -= _entries.front().size();
      _entries.pop_front();
    }
  }
  _changed.notify_all();
}

void Feed::setState(const std::string& name, const Dictionary& current) {
  std::string text = writeJSON(current).value_or("{}");
  {
    const MutexLock lock(_mutex);
    State& state = _states[name];
    if (state.change != 0 && state.text == text) return;
    state = {std::move(text), ++_lastChange};
  }
  _changed.notify_all();
}

bool Feed::hasNews(const Position& position) const {
  return position.entry < _lastEntry || position.change < _lastChange;
}

std::string Feed::next(Position& position, const std::stop_token& stop,
                       std::chrono::milliseconds limit) {
  const auto deadline = std::chrono::steady_clock::now() + limit;
  const std::stop_callback wake(stop, [this] {
    const MutexLock lock(_mutex);  // so that nobody is between its look and its wait
    _changed.notify_all();
  });
  std::string events;
  const MutexLock lock(_mutex);
  while (!hasNews(position)) {
    if (stop.stop_requested() || _changed.wait_until(_mutex, deadline) == std::cv_status::timeout)
      return events;
  }
  for (const auto& [name, state] : _states)
    if (state.change > position.change)
      events += fmt::format("event: {}\ndata: {}\n\n", name, state.text);
  position.change = _lastChange;

  const std::uint64_t forgotten = _lastEntry - _entries.size();
  if (position.entry < forgotten) {
    events += fmt::format("event: lost\ndata: {{\"lost\":{}}}\n\n", forgotten - position.entry);
    position.entry = forgotten;
  }
  while (position.entry < _lastEntry && events.size() < pieceSize) {
    const std::string& text = _entries[position.entry - forgotten];
    ++position.entry;
    events += fmt::format("id: {}-{}\nevent: entry\ndata: {}\n\n", _run, position.entry, text);
  }
  return events;
}

Feed::Position Feed::positionAfter(std::string_view id) const {
  if (!id.starts_with(_run + "-")) return {};
  return {.entry = numberFrom<std::uint64_t>(id.substr(_run.size() + 1)).value_or(0)};
}

}  // namespace corvid::lab
