// The real daemon's log in a journal. Each daemon has a /run of its own, so that the machine's
// journal hears nothing.
#include <gtest/gtest.h>
#include <sys/mount.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <filesystem>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "protocol/Reason.h"
#include "tests/e2e/LabFixture.h"
#include "tests/fakes/FakeJournal.h"
#include "tests/support/ChildProcess.h"
#include "tests/support/Disks.h"
#include "tests/support/Waiting.h"

namespace corvid {
namespace {

// A journal that keeps up.
class ReadJournal {
 public:
  explicit ReadJournal(const std::string& path) : _journal(path) {}
  ~ReadJournal() {
    _isEnding = true;
    _thread.join();
  }

  // The last entry so far whose message holds the fragment.
  std::optional<FakeJournal::Entry> awaitMessage(std::string_view fragment) {
    std::optional<FakeJournal::Entry> found;
    _notice.await([&] {
      for (const auto& entry : _entries)
        if (entry.at("MESSAGE").find(fragment) != std::string::npos) found = entry;
      return found.has_value();
    });
    return found;
  }

 private:
  void run() {
    while (!_isEnding) {
      const auto entry = _journal.take();
      if (entry)
        _notice.change([&] { _entries.push_back(*entry); });
      else
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
  }

  FakeJournal _journal;
  std::atomic<bool> _isEnding{false};
  Notice _notice;
  std::vector<FakeJournal::Entry> _entries;
  std::thread _thread{[this] { run(); }};
};

class JournalLog : public LabFixture {
 protected:
  JournalLog() { std::filesystem::create_directories(_run + "/systemd/journal"); }

  // For a child: shows it the folder in place of /run. False where the machine lets nobody do that.
  static bool showAsRun(const char* folder) {
    return takeOwnMounts() && mount(folder, "/run", nullptr, MS_BIND, nullptr) == 0;
  }
  bool canShowRun() const {
    return inChild([&] { return showAsRun(_run.c_str()) ? 0 : 1; }) == 0;
  }
  void startDaemonThatLogsToTheJournal() {
    _daemon.emplace(_root, std::vector<std::string>{"--log", "syslog", "--log-level", "debug"},
                    std::nullopt, [folder = _run.c_str()] {
                      if (!showAsRun(folder)) _exit(1);
                      DaemonProcess::giveUpFileRights();
                    });
    ASSERT_TRUE(_daemon->waitUntilReady()) << _daemon->standardError();
  }

  const std::string _run = _root.path("machine/run");
  const std::string _socket = _run + "/systemd/journal/socket";
};

TEST_F(JournalLog, LinesHaveSessionClientBackendAndReasonBesideThem) {
  if (!canShowRun()) GTEST_SKIP() << "takes root, to show a process another /run";
  ReadJournal journal(_socket);
  const std::string powerLog = _root.write("run/systemd/journal/socket", "");
  FakeJournal below(powerLog);
  publish("lumen", storebagPostingTo(urlOf("events"), admitsEverybody()));
  Dictionary needsConsent = admitsEverybody();
  needsConsent.erase("override_dnu");
  publish("tessel", storebagPostingTo(urlOf("events"), needsConsent));
  plan("events", {{"status", 503}, {"times", -1}});
  startDaemonThatLogsToTheJournal();
  const auto expect = [&](std::string_view message, const std::string& session,
                          const std::string& client, Reason reason) {
    auto entry = journal.awaitMessage(message);
    ASSERT_TRUE(entry) << message;
    EXPECT_EQ((*entry)["SYSLOG_IDENTIFIER"], "corvidd");
    EXPECT_EQ((*entry)["CORVID_SESSION"], session) << message;
    EXPECT_EQ((*entry)["CORVID_CLIENT"], client) << message;
    EXPECT_EQ((*entry)["CORVID_BACKEND"], "httpPost") << message;
    EXPECT_EQ((*entry)["CORVID_REASON"], wordOf(reason)) << message;
    EXPECT_EQ((*entry)["MESSAGE_ID"], textOf(reason).messageID) << message;
  };

  const auto start = journal.awaitMessage("main: Listener resumes with sandbox, start loop.");
  ASSERT_TRUE(start);
  EXPECT_EQ(*start,
            (FakeJournal::Entry{{"MESSAGE", "main: Listener resumes with sandbox, start loop."},
                                {"PRIORITY", "6"},
                                {"SYSLOG_IDENTIFIER", "corvidd"},
                                {"SYSLOG_FACILITY", "3"}}));
  TestClient player(_root.path());
  player.configure({.clientName = "Player"}).text();
  expect("client found Player:Service", "1", "Player", Reason::reporting);
  expect("postJSONMessage: backend httpPost disabled by server", "1", "Player",
         Reason::disabledByServer);
  TestClient radio(_root.path());
  radio.configure({.clientType = 6, .clientName = "Radio"}).text();
  expect("reporting disabled by DNU", "2", "Radio", Reason::noConsent);
  EXPECT_EQ(below.take(), std::nullopt) << "that is for power records";
  EXPECT_EQ(_daemon->standardError(), "");
}

TEST_F(JournalLog, GoesOnInAJournalThatHasComeBack) {
  if (!canShowRun()) GTEST_SKIP() << "takes root, to show a process another /run";
  std::optional<ReadJournal> journal(std::in_place, _socket);
  startDaemonThatLogsToTheJournal();
  ASSERT_TRUE(journal->awaitMessage("start loop"));
  journal.reset();
  std::optional<TestClient> client(std::in_place, _root.path());
  client->configure({}).text();
  journal.emplace(_socket);
  client.reset();
  EXPECT_TRUE(journal->awaitMessage("was invalidated"));
}

}  // namespace
}  // namespace corvid
