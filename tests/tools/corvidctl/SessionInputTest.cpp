// What `corvidctl session` does with input that cannot be used, and how it ends.
#include <corvid/corvid.h>
#include <sys/socket.h>

#include <filesystem>
#include <thread>

#include "base/Descriptor.h"
#include "base/UnixAddress.h"
#include "tests/support/ToolProcess.h"
#include "tests/tools/corvidctl/SessionProcess.h"

namespace corvid {
namespace {

using Lines = std::vector<std::string>;

constexpr const char* finishes = R"({"call":"finish","result":null})";

class SessionInput : public CtlFixture {
 protected:
  // The error that a line gives; the line after it is read.
  std::string refusalOf(std::string_view line) {
    const Lines lines = session(std::string(line) + "\n{\"call\":\"finish\"}\n");
    EXPECT_EQ(lines.size(), 2u) << line.substr(0, 100);
    if (lines.size() != 2) return "";
    EXPECT_EQ(lines.back(), finishes) << line.substr(0, 100);
    return lines.front();
  }
};

TEST_F(SessionInput, EndsWellWithoutAnyInput) {
  serve();
  EXPECT_EQ(session(""), Lines());
  EXPECT_TRUE(delegate->awaitInvalidated(0));
}

TEST_F(SessionInput, PassesOverBlankLines) {
  serve();
  EXPECT_EQ(session("\n  \t\r\n{\"call\":\"finish\"}\r\n\n"), Lines{finishes});
}

TEST_F(SessionInput, ALastLineWithoutAnEndIsUsed) {
  serve();
  EXPECT_EQ(session("{\"call\":\"finish\"}"), Lines{finishes});
}

// Lines that cannot be used

TEST_F(SessionInput, ALineThatIsNotJSONIsPassedOverByNumber) {
  serve();
  EXPECT_EQ(refusalOf("nonsense"),
            R"({"error":"line 1 is passed over: it is not JSON: Invalid value at byte 1"})");
  EXPECT_NE(refusalOf(R"({"call":"finish")").find("line 1 is passed over: it is not JSON: "),
            std::string::npos);
  EXPECT_NE(refusalOf(R"({"call":"finish"}{"call":"finish"})").find("it is not JSON: "),
            std::string::npos);
  EXPECT_NE(refusalOf("{\"call\":\"\xff\"}").find("it is not JSON: "), std::string::npos);
  EXPECT_NE(refusalOf(std::string("{\"call\":\"finish\"}\0", 18)).find("it is not JSON: "),
            std::string::npos);
  EXPECT_NE(refusalOf(std::string(100, '[')).find("it is not JSON: "), std::string::npos);
}

TEST_F(SessionInput, TheLineNumberCountsEveryLine) {
  serve();
  EXPECT_EQ(session("{\"call\":\"finish\"}\n\n5\n").at(1),
            R"({"error":"line 3 is passed over: it is not a JSON object"})");
}

TEST_F(SessionInput, AJSONValueThatIsNoObjectIsPassedOver) {
  serve();
  for (const char* line : {"[]", "5", "\"call\"", "null", R"({"$date":5})"})
    EXPECT_EQ(refusalOf(line), R"({"error":"line 1 is passed over: it is not a JSON object"})");
}

TEST_F(SessionInput, AnUnknownCallIsNamedWithThoseThatExist) {
  serve();
  EXPECT_EQ(
      refusalOf(R"({"call":"d\u00e4nce \"now\""})"),
      "{\"error\":\"line 1 is passed over: there is no call \\\"d\u00e4nce \\\"now\\\"\\\"; there "
      "are fetchDisplayURL, fetchStates, finish, flush, sendMessage, sendMessageWithDictionary, "
      "sendSingleMessage, setSessionInfo, sleep, startConfig, uploadFile, uploadLogData\"}");
}

TEST_F(SessionInput, ACallThatIsMissingOrNoTextIsNamed) {
  serve();
  for (const char* line : {"{}", R"({"call":5})", R"({"call":null})", R"({"Call":"finish"})"})
    EXPECT_EQ(refusalOf(line), R"({"error":"line 1 is passed over: \"call\" must be a text"})");
}

TEST_F(SessionInput, AnArgumentOfAWrongTypeIsNamed) {
  serve();
  const std::pair<const char*, const char*> cases[] = {
      {R"("setSessionInfo","sessionInfo":[])", R"(\"sessionInfo\" must be an object)"},
      {R"("setSessionInfo","userInfo":"x")", R"(\"userInfo\" must be an object)"},
      {R"("setSessionInfo","frameworksToCheck":{})", R"(\"frameworksToCheck\" must be an array)"},
      {R"("setSessionInfo","hasAggregationBlock":1)",
       R"(\"hasAggregationBlock\" must be true or false)"},
      {R"("fetchStates","userInfo":5)", R"(\"userInfo\" must be an object)"},
      {R"("sendMessage","category":65536)",
       R"(\"category\" must be a whole number from 0 to 65535)"},
      {R"("sendMessage","category":-1)", R"(\"category\" must be a whole number from 0 to 65535)"},
      {R"("sendMessage","type":1.5)", R"(\"type\" must be a whole number from 0 to 65535)"},
      {R"("sendMessage","type":"1")", R"(\"type\" must be a whole number from 0 to 65535)"},
      {R"("sendMessage","type":true)", R"(\"type\" must be a whole number from 0 to 65535)"},
      {R"("sendMessage","payload":[])", R"(\"payload\" must be an object)"},
      {R"("sendMessage","reply":"no")", R"(\"reply\" must be true or false)"},
      {R"("sendMessageWithDictionary","message":"x")", R"(\"message\" must be an object)"},
      {R"("uploadFile")", R"(\"path\" must be a text)"},
      {R"("uploadFile","path":5)", R"(\"path\" must be a text)"},
      {R"("uploadFile","path":"")", R"(\"path\" must be the path of a file)"},
      {R"("uploadFile","path":"/tmp/a\u0000b")", R"(\"path\" must be the path of a file)"},
      {R"("uploadLogData","logData":"x")", R"(\"logData\" must be an array)"},
      {R"("sendSingleMessage","sessionInfo":1)", R"(\"sessionInfo\" must be an object)"},
      {R"("sleep")", R"(\"seconds\" must be a number of seconds from 0 to 3600)"},
      {R"("sleep","seconds":-1)", R"(\"seconds\" must be a number of seconds from 0 to 3600)"},
      {R"("sleep","seconds":1e9)", R"(\"seconds\" must be a number of seconds from 0 to 3600)"},
      {R"("sleep","seconds":true)", R"(\"seconds\" must be a number of seconds from 0 to 3600)"},
      {R"("sendMessage","payload":{"d":{"$date":"x"}})",
       R"(\"$date\" takes a number of seconds, not x)"}};
  std::string input;
  Lines expected;
  for (const auto& [call, refusal] : cases) {
    input += std::string("{\"call\":") + call + "}\n";
    expected.push_back("{\"error\":\"line " + std::to_string(expected.size() + 1) +
                       " is passed over: " + refusal + "\"}");
  }
  EXPECT_EQ(session(input), expected);
  EXPECT_TRUE(calls().empty());
}

TEST_F(SessionInput, ALineThatIsCutOffByTheEndIsNotUsed) {
  serve();
  const Lines lines = session("{\"call\":\"finish\"}\n{\"call\":\"fin");
  ASSERT_EQ(lines.size(), 2u);
  EXPECT_EQ(lines[0], finishes);
  EXPECT_EQ(lines[1].find(R"({"error":"line 2 is passed over: it is not JSON: )"), 0u) << lines[1];
  EXPECT_EQ(calls().size(), 1u);
}

TEST_F(SessionInput, ALineThatIsTooLongIsPassedOverWhole) {
  serve();
  EXPECT_EQ(refusalOf(std::string((std::size_t{64} << 20) + 1, ' ') + R"({"call":"flush"})"),
            R"({"error":"line 1 is passed over: it is longer than 67108864 bytes"})");
}

std::string failed(int error) {
  return std::string("{\"error\":\"line 1 failed: ") + corvid_error_text(error) + "\"}";
}

TEST_F(SessionInput, WhatDoesNotTravelInOneMessageFailsAndTheNextIsRead) {
  serve();
  EXPECT_EQ(refusalOf(R"({"call":"sendMessage","payload":{"a":")" +
                      std::string(std::size_t{17} << 20, 'x') + "\"}}"),
            failed(CORVID_ERROR_TOO_LARGE));
  EXPECT_EQ(refusalOf(R"({"call":"sendMessage","payload":{"a":)" + std::string(40, '[') +
                      std::string(40, ']') + "}}"),
            failed(CORVID_ERROR_TOO_DEEP));
}

// The end of the connection

TEST_F(SessionInput, WithoutADaemonThereIsNothingButAnError) {
  const ToolResult result = ctl({"session"}, "{\"call\":\"finish\"}\n");
  EXPECT_EQ(result.status, 1);
  EXPECT_EQ(result.output, "");
  EXPECT_EQ(result.errors, "corvidctl: no daemon serves " + path +
                               " (corvidd does not run, or runs with another --root)\n");
}

TEST_F(SessionInput, ARootThatIsTooLongForASocketIsNamed) {
  const ToolResult result = runTool(
      CORVIDCTL_PROGRAM, {"--root", folder.path() + "/" + std::string(100, 'x'), "session"});
  EXPECT_EQ(result.status, 1);
  EXPECT_NE(result.errors.find("is longer than the system takes\n"), std::string::npos)
      << result.errors;
}

TEST_F(SessionInput, ALostConnectionEndsAProcessThatWaitsForInput) {
  serve();
  ToolProcess process(CORVIDCTL_PROGRAM, {"--root", folder.path(), "session"});
  process.write("{\"call\":\"finish\"}\n");
  EXPECT_EQ(process.readLine(), finishes);
  delegate->at(0).connection->invalidate("the test says so");
  EXPECT_EQ(process.readLine(), R"({"event":"invalidated"})");
  EXPECT_EQ(process.finish(), 1);
  EXPECT_EQ(process.output() + process.errors(), "");
}

// Takes one connection, and ends it when the first bytes have come.
class RudeDaemon {
 public:
  explicit RudeDaemon(const std::string& path) {
    std::filesystem::create_directories(std::filesystem::path(path).parent_path());
    if (UnixAddress(path).bind(_listener.get()) != 0 || ::listen(_listener.get(), 1) != 0)
      throw std::runtime_error("cannot listen at " + path);
    _thread = std::thread([this] {
      const Descriptor connection(::accept(_listener.get(), nullptr, nullptr));
      char byte = 0;
      if (::recv(connection.get(), &byte, 1, 0) != 1) ADD_FAILURE() << "nothing came";
    });
  }
  ~RudeDaemon() { _thread.join(); }

 private:
  Descriptor _listener{::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)};
  std::thread _thread;
};

TEST_F(SessionInput, AConnectionLostInACallPrintsNothingElse) {
  for (const char* call : {R"({"call":"setSessionInfo"})", R"({"call":"sendMessage"})",
                           R"({"call":"sendMessage","reply":false})"}) {
    std::filesystem::remove(path);
    const RudeDaemon daemon(path);
    const std::string line = std::string(call) + "\n";
    const ToolResult result = ctl({"session"}, line + line + line);
    EXPECT_EQ(result.status, 1) << call;
    EXPECT_EQ(result.output, "{\"event\":\"invalidated\"}\n") << call;
    EXPECT_EQ(result.errors, "") << call;
  }
}

TEST_F(SessionInput, AClientThatIsNotAcceptedIsInvalidated) {
  delegate->refuse = true;
  serve();
  ToolProcess process(CORVIDCTL_PROGRAM, {"--root", folder.path(), "session"});
  EXPECT_EQ(process.readLine(), R"({"event":"invalidated"})");
  EXPECT_EQ(process.finish(), 1);
}

}  // namespace
}  // namespace corvid
