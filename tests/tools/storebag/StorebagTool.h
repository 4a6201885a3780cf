// The program corvid-storebag, for tests of its commands.
#pragma once

#include <gtest/gtest.h>

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

}  // namespace corvid
