#include <gtest/gtest.h>

#include "base/Describe.h"
#include "base/Log.h"
#include "tests/fakes/CapturedLog.h"

namespace corvid {
namespace {

TEST(Log, WritesLevelAndText) {
  CapturedLog log;
  logDebug("value {} of {}", 1, "two");
  EXPECT_TRUE(log.has(LogLevel::debug, "value 1 of two"));
}

TEST(Log, EndsALineOnce) {
  CapturedLog log;
  logError("failed: {}\n", "reason");
  EXPECT_TRUE(log.has(LogLevel::error, "failed: reason"));
}

struct CountsFormatting {};

}  // namespace
}  // namespace corvid

template <>
struct fmt::formatter<corvid::CountsFormatting> {
  static inline int count = 0;
  constexpr auto parse(format_parse_context& context) { return context.begin(); }
  auto format(const corvid::CountsFormatting&, format_context& context) const {
    ++count;
    return context.out();
  }
};

namespace corvid {
namespace {

TEST(Log, ASuppressedLevelFormatsNothing) {
  CapturedLog log;
  installLog(&log, LogLevel::info);
  logDebug("{}", CountsFormatting{});
  EXPECT_EQ(fmt::formatter<CountsFormatting>::count, 0);
  logInfo("{}", CountsFormatting{});
  EXPECT_EQ(fmt::formatter<CountsFormatting>::count, 1);
  EXPECT_EQ(log.lines().size(), 1u);
}

}  // namespace
}  // namespace corvid
