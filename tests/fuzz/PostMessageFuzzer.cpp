// Bodies of posts on their whole way: unpacked, checked and published by the gateway, read and
// made rows of by the loader. The verdict does not depend on how a body is cut; what is stored is
// what was packed; and the loader reads whatever the gateway takes.
//
// The first byte says how the others are sent: as they are, announced as gzip, or packed here.
#include <algorithm>
#include <atomic>
#include <boost/asio/io_context.hpp>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>

#include "gateway/Ledger.h"
#include "gateway/body/PostBody.h"
#include "gateway/loader/PostReader.h"
#include "gateway/loader/Rows.h"
#include "tests/fuzz/Require.h"
#include "tools/Gzip.h"

namespace {

using namespace corvid;
using fleet::Exchange;
using Kind = fleet::PostBody::Kind;

class KeptLog final : public fleet::LogPublisher {
 public:
  void publish(fleet::LogMessage message, Completion completion) override {
    kept = std::move(message);
    completion(fleet::Published::stored);
  }
  bool isReady() const override { return true; }

  std::optional<fleet::LogMessage> kept;
};

struct Result {
  fleet::Verdict verdict;
  std::optional<fleet::LogMessage> message;
};

Result sendInPieces(std::string_view bytes, Kind kind, bool isGzip, std::size_t piece) {
  boost::asio::io_context loop;
  const auto mailbox = std::make_shared<fleet::Mailbox>(loop);
  KeptLog log;
  fleet::Ledger ledger;
  std::atomic<std::size_t> waiting = 0;
  fleet::Gunzips gunzips;
  fleet::Budget budget(std::size_t{1} << 30);
  std::optional<fleet::Verdict> verdict;
  {
    fleet::Holding holding(log, mailbox, ledger, waiting);
    fleet::PostBody body({.kind = kind,
                          .isGzip = isGzip,
                          .length = bytes.size(),
                          .headers = {{"received", "0"}},
                          .client = {},
                          .hold = std::chrono::seconds(1)},
                         gunzips, budget, holding);
    auto wish = Exchange::Wish::more;
    while (!bytes.empty() && wish == Exchange::Wish::more) {
      const std::size_t size = std::min(piece, bytes.size());
      wish = body.take(bytes.substr(0, size));
      bytes.remove_prefix(size);
      while (wish == Exchange::Wish::again) wish = body.work();
    }
    if (wish == Exchange::Wish::refused)
      verdict = fleet::Verdict{.refusal = body.refusal()};
    else
      body.finish([&](fleet::Verdict given) { verdict = std::move(given); });
    loop.poll();
  }
  fuzz::require(verdict.has_value());
  fuzz::require(verdict->refusal.has_value() != log.kept.has_value());
  fuzz::require(budget.used() == 0 && waiting == 0);
  return {std::move(*verdict), std::move(log.kept)};
}

void checkLoader(const fleet::LogMessage& message, std::uint64_t events) {
  std::string lines;
  std::size_t rows = 0;
  try {
    for (const fleet::PostedEvent& event : fleet::postFrom(message.body).events)
      fuzz::require(event.payload.starts_with('{') && event.payload.ends_with('}'));
    rows = fleet::appendEventLines(lines, message, fleet::timesOf(message));
  } catch (const std::invalid_argument& fault) {
    // Which the gateway does not look at.
    fuzz::require(std::string_view(fault.what()).find("\"clientId\"") != std::string_view::npos);
    fuzz::require(lines.empty());
    return;
  }
  fuzz::require(rows == events);
  fuzz::require(static_cast<std::size_t>(std::ranges::count(lines, '\n')) == rows);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size == 0) return 0;
  const std::string_view content(reinterpret_cast<const char*>(data + 1), size - 1);
  const Kind kind = (data[0] & 4u) != 0 ? Kind::logData : Kind::events;
  const bool isPacked = data[0] % 4 == 1;
  const bool isGzip = isPacked || data[0] % 4 == 2;
  const std::string sent = isPacked ? gzip(content) : std::string(content);
  const Result whole = sendInPieces(sent, kind, isGzip, std::max<std::size_t>(sent.size(), 1));
  const Result cut = sendInPieces(sent, kind, isGzip, 1u + data[0] / 8u);
  fuzz::require(whole.message.has_value() == cut.message.has_value());
  if (!whole.message) return 0;
  fuzz::require(whole.message->id == cut.message->id && whole.message->body == cut.message->body);
  fuzz::require(whole.verdict.events == cut.verdict.events);
  if (isPacked || !isGzip) fuzz::require(whole.message->body == content);
  if (kind == Kind::events) checkLoader(*whole.message, whole.verdict.events);
  return 0;
}
