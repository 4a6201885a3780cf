// The real corvidctl against a listener whose sessions record what they are asked.
#pragma once

#include <gtest/gtest.h>

#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "tests/rpc/ServiceFixture.h"
#include "tests/support/ToolProcess.h"

namespace corvid {

class CtlFixture : public ServiceFixture {
 protected:
  void serve(std::function<void(RecordingSession&, const std::shared_ptr<Connection>&)> prepare =
                 nullptr) {
    delegate->onSession = std::move(prepare);
    start();
  }
  ToolResult ctl(std::vector<std::string> arguments, std::string_view input = {}) const {
    arguments.insert(arguments.begin(), {"--root", folder.path()});
    return runTool(CORVIDCTL_PROGRAM, std::move(arguments), input);
  }
  // What `session` prints for the input, line by line; it must end well.
  std::vector<std::string> session(std::string_view input) const {
    const ToolResult result = ctl({"session"}, input);
    EXPECT_EQ(result.status, 0) << result.errors;
    EXPECT_EQ(result.errors, "");
    return linesOf(result.output);
  }
  std::string answerTo(std::string_view call) const {
    const std::vector<std::string> lines = session(std::string(call) + "\n");
    EXPECT_EQ(lines.size(), 1u);
    return lines.empty() ? "" : lines.front();
  }
  std::vector<RecordingSession::Call> calls(std::size_t connection = 0) {
    return delegate->at(connection).session->calls();
  }
};

}  // namespace corvid
