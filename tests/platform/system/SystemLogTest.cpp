#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <syslog.h>

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <sstream>
#include <thread>
#include <vector>

#include "base/LogFields.h"
#include "base/LogLine.h"
#include "platform/system/SystemLog.h"
#include "tests/fakes/FakeJournal.h"
#include "tests/support/ChildProcess.h"
#include "tests/support/Scratch.h"

namespace {

// The C library's system log, as the sink under test calls it.
struct SystemLogCalls {
  std::string identity;
  int options = -1;
  int facility = -1;
  bool isOpen = false;
  std::vector<std::pair<int, std::string>> lines;
} calls;

void record(int priority, const char* format, va_list arguments) {
  char line[65536];
  std::vsnprintf(line, sizeof line, format, arguments);
  calls.lines.emplace_back(priority, line);
}

}  // namespace

extern "C" {
void openlog(const char* identity, int options, int facility) {
  calls.identity = identity;
  calls.options = options;
  calls.facility = facility;
  calls.isOpen = true;
}
void closelog() { calls.isOpen = false; }
void syslog(int priority, const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  record(priority, format, arguments);
  va_end(arguments);
}
// The name that optimised builds call.
// NOLINTBEGIN(bugprone-reserved-identifier): it is the C library's.
void __syslog_chk(int priority, int, const char* format, ...);
void __syslog_chk(int priority, int, const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  record(priority, format, arguments);
  va_end(arguments);
}
// NOLINTEND(bugprone-reserved-identifier)
}

namespace corvid {
namespace {

using testing::ElementsAre;
using testing::MatchesRegex;
using testing::Pair;

const std::string noJournal = "/nonexistent/journal";

// What `work` writes to standard error, in lines.
std::vector<std::string> standardError(const std::function<void()>& work) {
  testing::internal::CaptureStderr();
  work();
  std::istringstream text(testing::internal::GetCapturedStderr());
  std::vector<std::string> lines;
  for (std::string line; std::getline(text, line);) lines.push_back(line);
  return lines;
}

TEST(SystemLog, OnTheSystemLogNamesProgramAndFacility) {
  calls = {};
  const auto sink = openSystemLog("corvidd", LogDestination::syslog, noJournal);
  EXPECT_TRUE(calls.isOpen);
  EXPECT_EQ(calls.identity, "corvidd");
  EXPECT_EQ(calls.facility, LOG_DAEMON);
  EXPECT_NE(calls.options & LOG_PID, 0);
}

TEST(SystemLog, OnTheSystemLogWritesTheTextAloneAtItsLevel) {
  calls = {};
  const auto sink = openSystemLog("corvidd", LogDestination::syslog, noJournal);
  sink->write(LogLevel::error, "main: one");
  sink->write(LogLevel::warning, "two");
  sink->write(LogLevel::info, "three %s%n");
  sink->write(LogLevel::debug, "four");
  EXPECT_THAT(calls.lines, ElementsAre(Pair(3, "main: one"), Pair(4, "two"), Pair(6, "three %s%n"),
                                       Pair(7, "four")));
}

TEST(SystemLog, OnTheSystemLogIsClosedWithTheSink) {
  calls = {};
  auto sink = openSystemLog("corvidd", LogDestination::syslog, noJournal);
  EXPECT_TRUE(calls.isOpen);
  sink.reset();
  EXPECT_FALSE(calls.isOpen);
}

TEST(SystemLog, OnTheSystemLogEscapesControlCharacters) {
  calls = {};
  const auto sink = openSystemLog("corvidd", LogDestination::syslog, noJournal);
  installLog(sink.get(), LogLevel::info);
  logInfo("{}", "a\nb\tc\rd\x1b[31me\x7f");
  logInfo("{}", std::string_view("x\0y", 3));
  installLog(nullptr, LogLevel::info);
  EXPECT_THAT(calls.lines,
              ElementsAre(Pair(6, "a\\nb\\tc\\x0dd\\x1b[31me\\x7f"), Pair(6, "x\\x00y")));
}

TEST(SystemLog, OnStandardErrorPutsTimeLevelAndProcessBeforeTheTextAndNothingAfter) {
  const auto lines = standardError([] {
    const auto sink = openSystemLog("corvidd", LogDestination::standardError, noJournal);
    sink->write(LogLevel::error, "one");
    sink->write(LogLevel::warning, "two");
    sink->write(LogLevel::info, "three {} %v");
    sink->write(LogLevel::debug, "");
  });
  const std::string time = "[0-9]{4}-[0-9]{2}-[0-9]{2} [0-9]{2}:[0-9]{2}:[0-9]{2}\\.[0-9]{3} ";
  const std::string process = " corvidd\\[" + std::to_string(getpid()) + "\\]: ";
  EXPECT_THAT(lines, ElementsAre(MatchesRegex(time + "error" + process + "one"),
                                 MatchesRegex(time + "warning" + process + "two"),
                                 MatchesRegex(time + "info" + process + "three \\{\\} %v"),
                                 MatchesRegex(time + "debug" + process)));
}

TEST(SystemLog, OnStandardErrorCannotBeForgedByAText) {
  const auto lines = standardError([] {
    const auto sink = openSystemLog("corvidd", LogDestination::standardError, noJournal);
    installLog(sink.get(), LogLevel::info);
    logInfo("{}", "a\n2026-01-01 00:00:00.000 error corvidd[1]: forged");
    logInfo("{}", "\x9b is no text, \xc2\x9b is a control, \xc3\xa4 is not");
    installLog(nullptr, LogLevel::info);
  });
  ASSERT_EQ(lines.size(), 2u);
  EXPECT_THAT(lines[0],
              testing::EndsWith(": a\\n2026-01-01 00:00:00.000 error corvidd[1]: forged"));
  EXPECT_THAT(lines[1],
              testing::EndsWith(": \\x9b is no text, \\x9b is a control, \xc3\xa4 is not"));
}

TEST(SystemLog, TakesAProgramNameAsItIs) {
  const auto lines = standardError([] {
    openSystemLog("100%v%", LogDestination::standardError, noJournal)
        ->write(LogLevel::info, "text");
  });
  ASSERT_EQ(lines.size(), 1u);
  EXPECT_THAT(lines[0], testing::EndsWith(" 100%v%[" + std::to_string(getpid()) + "]: text"));
}

TEST(SystemLog, KeepsTheLinesOfThreadsApart) {
  constexpr int threads = 4;
  constexpr int linesPerThread = 200;
  const auto lines = standardError([] {
    const auto sink = openSystemLog("corvidd", LogDestination::standardError, noJournal);
    std::vector<std::thread> writers;
    for (int i = 0; i < threads; ++i)
      writers.emplace_back([&sink, i] {
        const std::string text(100, static_cast<char>('a' + i));
        for (int n = 0; n < linesPerThread; ++n) sink->write(LogLevel::info, text);
      });
    for (std::thread& writer : writers) writer.join();
  });
  ASSERT_EQ(lines.size(), std::size_t{threads} * linesPerThread);
  for (int i = 0; i < threads; ++i) {
    const std::string ending = "]: " + std::string(100, static_cast<char>('a' + i));
    EXPECT_EQ(
        std::ranges::count_if(lines, [&](const auto& line) { return line.ends_with(ending); }),
        linesPerThread);
  }
}

TEST(SystemLog, SurvivesAStandardErrorThatTakesNothing) {
  const std::optional<int> status = inChild([] {
    if (std::freopen("/dev/full", "w", stderr) == nullptr) return 2;
    const auto sink = openSystemLog("corvidd", LogDestination::standardError, noJournal);
    sink->write(LogLevel::error, "lost");
    sink->write(LogLevel::error, "lost as well");
    return 7;
  });
  EXPECT_EQ(status, 7);
}

class SystemLogInTheJournal : public testing::Test {
 protected:
  SystemLogInTheJournal() { calls = {}; }

  ScratchRoot root;
  const std::string path = root.path("journal");
  FakeJournal journal{path};
  std::unique_ptr<LogSink> sink = openSystemLog("corvidd", LogDestination::syslog, path);
};

TEST_F(SystemLogInTheJournal, ALineHasItsTextAndLevelAndNoFieldThatIsNotKnown) {
  sink->write(LogLevel::warning, "main: one %s");
  EXPECT_EQ(journal.take(), (FakeJournal::Entry{{"MESSAGE", "main: one %s"},
                                                {"PRIORITY", "4"},
                                                {"SYSLOG_IDENTIFIER", "corvidd"},
                                                {"SYSLOG_FACILITY", "3"}}));
  for (const auto& [level, priority] :
       {std::pair(LogLevel::error, "3"), {LogLevel::info, "6"}, {LogLevel::debug, "7"}}) {
    sink->write(level, "text");
    EXPECT_EQ(journal.take().value()["PRIORITY"], priority);
  }
}

TEST_F(SystemLogInTheJournal, WhatIsKnownOfALineStandsBesideIt) {
  const auto subject = std::make_shared<LogSubject>(12);
  subject->setClient("Player\nPRIORITY=0");
  const LoggingFor session(subject.get());
  const LoggingBackend backend("httpPost");
  const LoggingReason reason("noConsent", "0123456789abcdef0123456789abcdef");
  sink->write(LogLevel::debug, "text");
  EXPECT_EQ(journal.take(),
            (FakeJournal::Entry{{"MESSAGE", "text"},
                                {"PRIORITY", "7"},
                                {"SYSLOG_IDENTIFIER", "corvidd"},
                                {"SYSLOG_FACILITY", "3"},
                                {"CORVID_SESSION", "12"},
                                {"CORVID_CLIENT", "Player\\nPRIORITY=0"},
                                {"CORVID_BACKEND", "httpPost"},
                                {"CORVID_REASON", "noConsent"},
                                {"MESSAGE_ID", "0123456789abcdef0123456789abcdef"}}));
}

TEST_F(SystemLogInTheJournal, TheLongestLineIsOneEntry) {
  const auto subject = std::make_shared<LogSubject>(1);
  subject->setClient(std::string(1000, '\x01'));
  const LoggingFor session(subject.get());
  installLog(sink.get(), LogLevel::info);
  logInfo("{}", std::string(10'000, 'x'));
  installLog(nullptr, LogLevel::info);
  EXPECT_EQ(journal.take().value()["MESSAGE"], logLine(std::string(10'000, 'x'), 10'000));
  EXPECT_EQ(journal.take(), std::nullopt);
}

TEST_F(SystemLogInTheJournal, NothingGoesToTheSystemLogBeside) {
  sink->write(LogLevel::error, "text");
  EXPECT_FALSE(calls.isOpen);
  EXPECT_TRUE(calls.lines.empty());
}

TEST_F(SystemLogInTheJournal, StandardErrorIsNotRedirected) {
  const auto lines = standardError([&] {
    openSystemLog("corvidd", LogDestination::standardError, path)->write(LogLevel::info, "text");
  });
  EXPECT_EQ(lines.size(), 1u);
  EXPECT_EQ(journal.take(), std::nullopt);
}

}  // namespace
}  // namespace corvid
