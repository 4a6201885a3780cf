#include "gateway/uploads/UploadBody.h"

#include <fmt/format.h>

#include <chrono>
#include <utility>

#include "gateway/Limits.h"

namespace corvid::fleet {

namespace {

constexpr const char* confirmation = "{\"success\":true}\n";

double secondsSince1970() {
  return std::chrono::duration<double>(std::chrono::system_clock::now().time_since_epoch()).count();
}

}  // namespace

UploadBody::UploadBody(Request request, UploadStore& store, DiskThread& disk, Budget& budget,
                       std::shared_ptr<Mailbox> mailbox)
    : _goOn(std::move(request.goOn)),
      _charge(budget, std::move(request.share)),
      _disk(disk),
      _mailbox(std::move(mailbox)),
      _work(std::make_shared<Work>(
          Work{store, std::move(request.query), request.freeSpace + request.length})) {}

Exchange::Wish UploadBody::take(std::string_view piece) {
  _sent += piece.size();
  if (_sent > limits::sentFileBytes) return fault(Rule::sentTooLarge);
  // What is collected, what the disk has, and what unpacking takes.
  if (!_charge.raiseTo(3 * pieceBytes))
    return fault(_charge.isBeyondShare() ? Rule::clientMemory : Rule::memoryFull);
  _collected += piece;
  return work();
}

Exchange::Wish UploadBody::work() {
  if (_fault) return fault(*_fault);
  if (_collected.size() < pieceBytes) return Wish::more;
  if (_diskIsBusy) {
    _isPausing = true;
    return Wish::pause;
  }
  handOver();
  return Wish::more;
}

Exchange::Wish UploadBody::fault(Rule rule) {
  switch (rule) {
    case Rule::sentTooLarge: return refuse(rule, fmt::format("{} bytes", limits::sentFileBytes));
    case Rule::unpackedTooLarge: return refuse(rule, fmt::format("{} bytes", limits::fileBytes));
    default: return refuse(rule);
  }
}

void UploadBody::finish(Done done) {
  _done = std::move(done);
  if (!_diskIsBusy) end();
}

void UploadBody::handOver() {
  _diskIsBusy = true;
  _disk.run([work = _work, bytes = std::exchange(_collected, {}), mailbox = _mailbox,
             self = std::weak_ptr(_self)] {
    const auto rule = work->write(bytes);
    mailbox->post([self, rule] {
      if (const auto body = self.lock()) (*body)->written(rule);
    });
  });
}

void UploadBody::written(std::optional<Rule> rule) {
  _diskIsBusy = false;
  if (!_fault) _fault = rule;
  if (_done) return end();
  if (std::exchange(_isPausing, false)) _goOn();
}

// The disk is at rest and the body whole.
void UploadBody::end() {
  Done done = std::move(_done);
  if (_fault) {
    fault(*_fault);
    return done({.refusal = refusal()});
  }
  _disk.run(
      [work = _work, bytes = std::move(_collected), mailbox = _mailbox, done = std::move(done)] {
        const auto rule = work->finish(bytes);
        mailbox->post([done, rule] {
          if (rule) return done({.refusal = Refusal{*rule}});
          done({.body = confirmation, .type = "application/json"});
        });
      });
}

std::optional<Rule> UploadBody::Work::write(std::string_view bytes) {
  if (!file) {
    const auto room = store.freeSpace();
    if (room && *room < needed) return Rule::diskFull;
    file = store.begin();
    if (!file) return Rule::diskFailed;
  }
  return file->write(bytes);
}

std::optional<Rule> UploadBody::Work::finish(std::string_view bytes) {
  auto rule = write(bytes);
  if (!rule) rule = file->store(query, secondsSince1970());
  file.reset();
  return rule;
}

}  // namespace corvid::fleet
