// Warnings about what a client does wrong, which it can do as often as it likes.
#pragma once

#include "base/Log.h"

namespace corvid {

namespace detail {
void writeComplaint(fmt::string_view format, fmt::format_args arguments);
}

// As logWarning, but counted sooner (LogPace.h) where the thread works for a user.
template <class... A>
void logComplaint(fmt::format_string<const A&...> format, const A&... arguments) {
  if (static_cast<int>(LogLevel::warning) <= detail::logThreshold.load(std::memory_order_relaxed))
    detail::writeComplaint(format, fmt::make_format_args(arguments...));
}

}  // namespace corvid
