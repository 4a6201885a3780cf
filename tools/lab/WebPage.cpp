#include "tools/lab/WebPage.h"

#include <fmt/format.h>

#include <algorithm>
#include <iterator>
#include <memory>
#include <string_view>
#include <utility>

#include "tools/lab/Origin.h"

namespace corvid::lab {

namespace {

struct Asset {
  std::string_view path;
  std::string_view type;
  std::string_view content;
};

// The files in tools/lab/web as they stood when this program was built.
constexpr Asset assets[] = {
#include "WebAssets.inc"
};

constexpr std::string_view storebagPath = "/storebags/";

// Nothing but the page's own files, no frames around it, and no text that becomes code.
constexpr std::string_view policy =
    "default-src 'none'; script-src 'self'; style-src 'self'; connect-src 'self'; img-src 'self'; "
    "base-uri 'none'; form-action 'none'; frame-ancestors 'none'; "
    "require-trusted-types-for 'script'; trusted-types 'none'";

Answer protectedAnswer(Answer answer) {
  answer.headers.insert(answer.headers.end(), {{"Content-Security-Policy", std::string(policy)},
                                               {"Cross-Origin-Resource-Policy", "same-origin"},
                                               {"X-Content-Type-Options", "nosniff"},
                                               {"X-Frame-Options", "DENY"},
                                               {"Referrer-Policy", "no-referrer"},
                                               {"Cache-Control", "no-store"}});
  return answer;
}

}  // namespace

WebPage::WebPage(Lab lab, std::uint16_t port)
    : _lab(std::move(lab)),
      _server([this](const Request& request) { return protectedAnswer(answer(request)); },
              {std::nullopt, port}) {}

Answer WebPage::answer(const Request& request) {
  if (!isOfThisOrigin(request)) return {.status = 403, .body = "this is for the lab's own page\n"};
  const std::string_view target =
      std::string_view(request.target).substr(0, request.target.find('?'));
  if (target == "/fault") {
    // Browsers name the origin of every POST; what does not has the control address.
    if (request.method != "POST" || !request.header("Origin"))
      return {.status = 405, .body = "faults are planned here by the page\n"};
    return _lab.plan(request);
  }
  if (request.method != "GET") return {.status = 405, .body = "this is read with GET\n"};
  if (target == "/feed") return stream(request);
  if (target.starts_with(storebagPath))
    return _lab.storebag(std::string(target.substr(storebagPath.size())));
  const auto asset = std::ranges::find(assets, target, &Asset::path);
  if (asset == std::end(assets)) return {.status = 404, .body = "the page is at /\n"};
  return {.status = 200,
          .headers = {{"Content-Type", std::string(asset->type)}},
          .body = std::string(asset->content)};
}

Answer WebPage::stream(const Request& request) {
  // Counted down when the last copy of the answer goes.
  const std::shared_ptr<void> viewer(nullptr, [this](void*) { --_viewers; });
  if (++_viewers > mostViewers) return {.status = 503, .body = "too many pages are open\n"};
  const auto follow = [this, viewer, last = request.header("Last-Event-ID").value_or("")](
                          const Answer::Write& write, const std::stop_token& stop) {
    Feed::Position position = _lab.feed.positionAfter(last);
    auto refreshed = std::chrono::steady_clock::time_point::min();
    if (!write(
            fmt::format("retry: 500\nevent: hello\ndata: {{\"run\":\"{}\"}}\n\n", _lab.feed.run())))
      return;
    while (!stop.stop_requested()) {
      if (const auto now = std::chrono::steady_clock::now(); now - pulse >= refreshed) {
        _lab.refresh();
        refreshed = now;
      }
      std::string events = _lab.feed.next(position, stop, pulse);
      if (events.empty()) events = ":\n\n";  // finds out whether the viewer is still there
      if (!write(events)) return;
    }
  };
  return {.status = 200, .headers = {{"Content-Type", "text/event-stream"}}, .stream = follow};
}

}  // namespace corvid::lab
