#include "tests/soak/Stand.h"

#include <signal.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <random>
#include <stdexcept>
#include <utility>

#include "platform/data/JSON.h"
#include "platform/data/PropertyList.h"
#include "tests/soak/Kinds.h"
#include "tests/support/Disks.h"
#include "tests/support/Scratch.h"

namespace corvid::soak {

namespace fs = std::filesystem;

namespace {

constexpr std::size_t diskBytes = std::size_t{48} << 20;
constexpr std::string_view home = "var/lib/corvidd";
constexpr std::string_view messageLogs = "var/lib/corvidd/Library";
constexpr std::string_view deployment = "etc/corvid/deployment.plist";

}  // namespace

Stand::Stand(bool keepsStorebags, bool hasSmallDisk) {
  if (hasSmallDisk) _disk.emplace(_root.path(home), diskBytes);
  for (const char* const name : {"live", "bulk"})
    _collectors.push_back(std::make_unique<Collector>(
        name, _identity, [this](const std::string& mark, const Arrival& arrival) {
          const std::lock_guard lock(_mutex);
          _arrivals.push_back({mark, arrival});
        }));
  std::map<std::string, std::string> urls;
  for (const auto& collector : _collectors) urls[collector->name()] = collector->url();
  for (const Kind& kind : kinds())
    if (!kind.storebag.empty())
      _root.write("lab/storebags/" + std::string(kind.storebag) + ".plist",
                  writeXMLPropertyList(Value(storebagOf(kind, urls))));
  const Result<Value> settings = parsePropertyList(contentOf(_root.path(deployment)));
  Dictionary more = *settings.value().dictionary();
  more.set("KeepStorebags", keepsStorebags);
  _root.write(deployment, writeXMLPropertyList(Value(more)));
  const ToolResult consent = _operator.ctl(
      {"prefs", "--suite", "com.halcyon.diagnostics", "set", "SubmitDiagnostics", "true"});
  if (consent.status != 0) throw std::runtime_error("no consent: " + consent.errors);
}

bool Stand::canHave(FaultKind kind) const {
  if (kind == FaultKind::fullDisk) return _disk.has_value();
  if (kind == FaultKind::clockStep || kind == FaultKind::clockWrong) return WallClock::canJump();
  return true;
}

Collector* Stand::collectorNamed(const std::string& name) {
  for (const auto& collector : _collectors)
    if (collector->name() == name) return collector.get();
  return nullptr;
}

void Stand::begin(const Fault& fault) {
  using std::chrono::hours;
  if (Collector* const collector = collectorNamed(fault.target))
    return collector->begin(fault.kind);
  if (fault.target == "storebags") return spoilStorebags(fault.kind);
  switch (fault.kind) {
    // An odd begin has it jump back.
    case FaultKind::clockStep: return _clock.set(fault.begin % 2 == 0 ? hours(3) : hours(-5));
    case FaultKind::clockWrong: return _clock.set(hours(24 * 365 * 20));
    case FaultKind::fullDisk: return fillDisk(_disk->folder());
    case FaultKind::freezeDaemon: _isFrozen = true; return _daemon->freeze();
    case FaultKind::reload: return _daemon->signal(SIGHUP);
    default: return;
  }
}

void Stand::end(const Fault& fault) {
  if (Collector* const collector = collectorNamed(fault.target)) return collector->end(fault.kind);
  if (fault.target == "storebags") return mendStorebags();
  switch (fault.kind) {
    case FaultKind::clockStep: return _clock.set(std::chrono::seconds(0));
    case FaultKind::clockWrong: _clock.set(std::chrono::seconds(0)); return refresh();
    case FaultKind::fullDisk: return unfillDisk(_disk->folder());
    case FaultKind::freezeDaemon:
      _daemon->signal(SIGCONT);
      _isFrozen = false;
      if (_refreshIsDue) refresh();
      return;
    default: return;
  }
}

void Stand::spoilStorebags(FaultKind kind) {
  Dictionary plan{{"server", "storebags"}, {"times", -1}};
  switch (kind) {
    case FaultKind::status404: plan.set("status", 404); break;
    case FaultKind::status500: plan.set("status", 500); break;
    case FaultKind::status503: plan.set("status", 503); break;
    case FaultKind::hang: plan.set("silent", true); break;
    case FaultKind::slow: plan.set("delay", 0.4); break;
    case FaultKind::cutAnswer: plan.set("cutBodyAfter", 20); break;
    case FaultKind::reset: _lab.storebags().setConnectionFault(lab::ConnectionFault::resets); break;
    default: _lab.storebags().setConnectionFault(lab::ConnectionFault::garbage);
  }
  if (kind != FaultKind::reset && kind != FaultKind::garbage) _lab.faults().set(plan);
  refresh();
}

void Stand::mendStorebags() {
  _lab.faults().set({{"server", "storebags"}, {"times", 0}});
  _lab.storebags().setConnectionFault(lab::ConnectionFault::none);
  refresh();
}

bool Stand::startDaemon() {
  _isFrozen = _refreshIsDue = false;
  _daemon.reset();
  _daemon.emplace(_root, std::vector<std::string>{"--log", "stderr", "--log-level", "warning"},
                  std::nullopt, DaemonProcess::giveUpFileRights, _clock.environment());
  return _daemon->waitUntilReady();
}

std::optional<Dictionary> Stand::status() const {
  const ToolResult result = _operator.ctl({"status", "--json"});
  const Result<Value> status = parseJSON(result.output);
  if (result.status != 0 || !status || !status.value().dictionary()) return std::nullopt;
  return *status.value().dictionary();
}

void Stand::refresh() {
  _refreshIsDue = _isFrozen;
  if (!_isFrozen) (void)_operator.ctl({"refresh"});
}

std::vector<std::string> Stand::takeLog() {
  const std::string all = _daemon->standardError();
  std::string_view rest = std::string_view(all).substr(_logRead);
  std::vector<std::string> lines;
  for (std::size_t end; (end = rest.find('\n')) != rest.npos; rest.remove_prefix(end + 1)) {
    lines.emplace_back(rest.substr(0, end));
    _logRead += end + 1;
  }
  return lines;
}

std::vector<Stand::Record> Stand::takeArrivals() {
  const std::lock_guard lock(_mutex);
  return std::exchange(_arrivals, {});
}

std::string Stand::keep() {
  _daemon.reset();
  const fs::path kept = _root.path() + "-failed";
  for (const auto& entry : fs::recursive_directory_iterator(_root.path())) {
    if (!entry.is_regular_file()) continue;
    const fs::path place = kept / fs::relative(entry.path(), _root.path());
    fs::create_directories(place.parent_path());
    std::error_code unreadable;
    fs::copy_file(entry.path(), place, unreadable);
  }
  return kept;
}

void Stand::cleanUp() const { _root.remove(messageLogs); }

}  // namespace corvid::soak
