#include "tools/corvidctl/Table.h"

#include <fmt/format.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>

#include "base/Text.h"

namespace corvid::ctl {

namespace {

constexpr std::size_t gap = 2;
constexpr std::size_t narrowest = 4;  // that a column is cut to

}  // namespace

Screen Screen::ofStandardOutput() {
  if (isatty(STDOUT_FILENO) == 0) return {};
  winsize size{};
  const bool isKnown = ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_col > 0;
  const char* const terminal = std::getenv("TERM");
  const bool isDumb = terminal == nullptr || std::string_view(terminal) == "dumb";
  return {.width = isKnown ? size.ws_col : std::size_t{80},
          .hasColours = !isDumb && std::getenv("NO_COLOR") == nullptr};
}

std::string toned(std::string_view text, Tone tone, const Screen& screen) {
  if (!screen.hasColours || tone == Tone::plain || text.empty()) return std::string(text);
  const char* const code = tone == Tone::good    ? "32"
                           : tone == Tone::bad   ? "31"
                           : tone == Tone::quiet ? "2"
                                                 : "1";
  return fmt::format("\x1b[{}m{}\x1b[0m", code, text);
}

std::size_t columnsOf(std::string_view text) {
  return static_cast<std::size_t>(std::ranges::count_if(
      text, [](char c) { return (static_cast<unsigned char>(c) & 0xC0U) != 0x80U; }));
}

std::string cut(std::string_view text, std::size_t columns) {
  if (columnsOf(text) <= columns) return std::string(text);
  if (columns == 0) return {};
  std::size_t at = 0;
  for (std::size_t left = columns - 1; left > 0; --left) at += decodeUTF8(text, at).length;
  return std::string(text.substr(0, at)) + "…";
}

std::string age(double seconds) {
  if (seconds < 100) return fmt::format("{:.0f} s", seconds);
  if (seconds < 100 * 60) return fmt::format("{:.0f} min", seconds / 60);
  if (seconds < 48 * 3600) return fmt::format("{:.0f} h", seconds / 3600);
  return fmt::format("{:.0f} d", seconds / 86400);
}

std::string size(double bytes) {
  if (bytes < 1000) return fmt::format("{:.0f} B", bytes);
  if (bytes < 1e6) return fmt::format("{:.1f} kB", bytes / 1e3);
  return fmt::format("{:.1f} MB", bytes / 1e6);
}

std::string Table::text(const Screen& screen, std::size_t indent) const {
  std::vector<std::size_t> widths;
  for (const auto& row : _rows) {
    widths.resize(std::max(widths.size(), row.size()));
    for (std::size_t at = 0; at < row.size(); ++at)
      widths[at] = std::max(widths[at], columnsOf(row[at].text));
  }
  std::size_t all = indent;
  for (const std::size_t width : widths) all += width + gap;
  all -= widths.empty() ? 0 : gap;
  for (std::size_t at = widths.size(); screen.width > 0 && at-- > 0 && all > screen.width;) {
    const std::size_t most = widths[at] > narrowest ? widths[at] - narrowest : 0;
    const std::size_t less = std::min(all - screen.width, most);
    widths[at] -= less;
    all -= less;
  }
  std::string text;
  for (const auto& row : _rows) {
    std::string line(indent, ' ');
    std::size_t blanks = 0;
    std::size_t column = indent;
    for (std::size_t at = 0; at < row.size(); ++at) {
      const std::size_t start = column + blanks;
      if (screen.width > 0 && start >= screen.width) break;
      const std::size_t room =
          screen.width > 0 ? std::min(widths[at], screen.width - start) : widths[at];
      const std::string shown = cut(row[at].text, room);
      if (!shown.empty()) {
        line.append(blanks, ' ').append(toned(shown, row[at].tone, screen));
        column = start + columnsOf(shown);
        blanks = 0;
      }
      blanks += widths[at] - columnsOf(shown) + gap;
    }
    text += line + "\n";
  }
  return text;
}

}  // namespace corvid::ctl
