#include "platform/data/XMLPropertyListScalars.h"

#include <fmt/format.h>

#include <charconv>
#include <chrono>
#include <cmath>

namespace corvid {

namespace {

// Reads the whole of `text` as a number of type T; nothing when it is none or does not fit.
template <class T, class... Form>
std::optional<T> numberFrom(std::string_view text, Form... form) {
  T number{};
  const char* end = text.data() + text.size();
  const auto [stop, error] = std::from_chars(text.data(), end, number, form...);
  if (error != std::errc() || stop != end) return std::nullopt;
  return number;
}

}  // namespace

std::optional<std::int64_t> integerFromXML(std::string_view text) {
  const bool negative = text.starts_with('-');
  if (negative || text.starts_with('+')) text.remove_prefix(1);
  const bool isHexadecimal = text.starts_with("0x") || text.starts_with("0X");
  if (isHexadecimal) text.remove_prefix(2);
  const auto magnitude = numberFrom<std::uint64_t>(text, isHexadecimal ? 16 : 10);
  constexpr std::uint64_t leastMagnitude = std::uint64_t{1} << 63;
  if (!magnitude || (negative && *magnitude > leastMagnitude)) return std::nullopt;
  return static_cast<std::int64_t>(negative ? 0 - *magnitude : *magnitude);
}

std::optional<double> realFromXML(std::string_view text) {
  if (text.starts_with('+') && !text.starts_with("+-")) text.remove_prefix(1);
  return numberFrom<double>(text);
}

std::optional<Date> dateFromXML(std::string_view text) {
  constexpr std::string_view form = "0000-00-00T00:00:00Z";
  if (text.size() != form.size()) return std::nullopt;
  for (std::size_t i = 0; i < form.size(); ++i)
    if (form[i] == '0' ? text[i] < '0' || text[i] > '9' : text[i] != form[i]) return std::nullopt;
  const auto field = [&](std::size_t at, std::size_t length) {
    return numberFrom<unsigned>(text.substr(at, length)).value_or(0);
  };
  const std::chrono::year_month_day day(std::chrono::year(static_cast<int>(field(0, 4))),
                                        std::chrono::month(field(5, 2)),
                                        std::chrono::day(field(8, 2)));
  const unsigned hour = field(11, 2), minute = field(14, 2), second = field(17, 2);
  if (!day.ok() || hour > 23 || minute > 59 || second > 60) return std::nullopt;
  const std::chrono::sys_seconds moment = std::chrono::sys_days(day) + std::chrono::hours(hour) +
                                          std::chrono::minutes(minute) +
                                          std::chrono::seconds(second);
  return Date{static_cast<double>(moment.time_since_epoch().count())};
}

std::optional<std::string> xmlFromDate(Date date) {
  using namespace std::chrono;
  constexpr double first = -62167219200.0;  // 0000-01-01 00:00:00
  constexpr double past = 253402300800.0;   // 10000-01-01 00:00:00
  if (!(date.secondsSince1970 >= first && date.secondsSince1970 < past)) return std::nullopt;
  const sys_seconds moment{seconds(static_cast<std::int64_t>(std::floor(date.secondsSince1970)))};
  const sys_days midnight = floor<days>(moment);
  const year_month_day day(midnight);
  const hh_mm_ss time(moment - midnight);
  return fmt::format("{:04}-{:02}-{:02}T{:02}:{:02}:{:02}Z", static_cast<int>(day.year()),
                     static_cast<unsigned>(day.month()), static_cast<unsigned>(day.day()),
                     time.hours().count(), time.minutes().count(), time.seconds().count());
}

}  // namespace corvid
