// The program corvid-storebag, for tests of its commands.
#pragma once

#include <gtest/gtest.h>
#include <sys/resource.h>

#include <algorithm>
#include <limits>
#include <string>
#include <utility>
#include <vector>

#include "tests/support/ToolProcess.h"

namespace corvid {

inline ToolResult storebagTool(std::vector<std::string> arguments) {
  return runTool(CORVID_STOREBAG_PROGRAM, std::move(arguments));
}

// What is printed where all is well.
inline std::string printedBy(std::vector<std::string> arguments) {
  const ToolResult result = storebagTool(std::move(arguments));
  EXPECT_EQ(result.status, 0) << result.errors;
  EXPECT_EQ(result.errors, "");
  return result.output;
}

// It ends with `status` and one line that says so; nothing on standard output.
inline void expectFailure(std::vector<std::string> arguments, const std::string& message,
                          int status = 1) {
  const ToolResult result = storebagTool(std::move(arguments));
  EXPECT_EQ(result.status, status) << message;
  EXPECT_EQ(result.errors, "corvid-storebag: " + message + "\n");
  EXPECT_EQ(result.output, "");
}

// The least processor time of some runs that end with `status`, in milliseconds: other work on the
// machine counts for little in it.
inline double processorMilliseconds(const std::vector<std::string>& arguments, int status) {
  const auto used = [] {
    rusage usage{};
    getrusage(RUSAGE_CHILDREN, &usage);
    const auto milliseconds = [](const timeval& time) {
      return static_cast<double>(time.tv_sec) * 1e3 + static_cast<double>(time.tv_usec) / 1e3;
    };
    return milliseconds(usage.ru_utime) + milliseconds(usage.ru_stime);
  };
  double least = std::numeric_limits<double>::max();
  for (int run = 0; run < 5; ++run) {
    const double before = used();
    EXPECT_EQ(storebagTool(arguments).status, status);
    least = std::min(least, used() - before);
  }
  testing::Test::RecordProperty("milliseconds", std::to_string(least));
  return least;
}

}  // namespace corvid
