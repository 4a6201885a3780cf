// What every test of a session starts from: one session among fakes.
#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "session/CorviddSession.h"
#include "tests/fakes/FakeBackend.h"
#include "tests/fakes/FakeConnection.h"
#include "tests/fakes/FakeSessionDelegate.h"
#include "tests/fakes/Journal.h"
#include "tests/fakes/RecordedReply.h"
#include "tests/fakes/TestPlatform.h"

namespace corvid {

using RecordedStates = RecordedReply<std::optional<Array>>;
using RecordedResult = RecordedReply<MessageAnswer>;
using RecordedFlush = RecordedReply<std::optional<std::string>, std::optional<CorvidError>>;

// Backends named by `add` make up the table of the next configuration and of single messages.
class SessionTest : public ::testing::Test {
 protected:
  // What the session handed over when it had its backends made.
  struct Creation {
    std::optional<Dictionary> section;
    std::optional<Dictionary> sessionInfo;
    std::optional<Dictionary> userInfo;
    std::string udid;
  };

  ~SessionTest() override { agent->ancestor = nullptr; }  // it holds the agent

  std::shared_ptr<CorviddSession> newSession() { return newSession(connection); }
  std::shared_ptr<CorviddSession> newSession(std::shared_ptr<Connection> client) {
    return CorviddSession::initWithSessionDelegate(agent, std::move(client), creator());
  }
  BackendSetCreator creator() {
    return [this](const Dictionary* section, const Dictionary* sessionInfo,
                  const SharedDictionary& userInfo, std::optional<std::string> udid) {
      creations.push_back(
          {copied(section), copied(sessionInfo), copied(userInfo.get()), udid.value_or("none")});
      return table;
    };
  }

  FakeBackend& add(std::string_view name, std::optional<std::string> displayURL = std::nullopt) {
    return addAs(name, name, std::move(displayURL));
  }
  // Under a key that differs from the backend's own name.
  FakeBackend& addAs(std::string_view key, std::string_view name,
                     std::optional<std::string> displayURL = std::nullopt) {
    auto backend = std::make_shared<FakeBackend>(std::string(name), journal, std::move(displayURL));
    if (!table) table.emplace();
    (*table)[std::string(key)] = backend;
    return *backend;
  }
  // The session gets the table and is the only one to keep it.
  void configureAndStart(const Dictionary& info = {{"SessionID", 7}, {"ClientType", 5}},
                         std::optional<Dictionary> userInfo = std::nullopt,
                         bool hasAggregationBlock = false) {
    if (!table) table.emplace();
    agent->storebag = Dictionary{};
    session->setSessionInfo(info, std::move(userInfo), {}, hasAggregationBlock);
    session->startConfigWithCompletionHandler({});
    table.reset();
    forgetWhatHappened();
  }
  void forgetWhatHappened() {
    journal->clear();
    platform.log.clear();
    platform.files->files.clear();
  }

  std::optional<std::string> send(std::uint16_t category, std::uint16_t type,
                                  std::optional<Dictionary> payload = std::nullopt) {
    RecordedResult recorded;
    session->sendMessageWithCategory(category, type, std::move(payload), recorded.reply());
    return recorded.result();
  }
  std::optional<std::string> send(const Dictionary& message) {
    RecordedResult recorded;
    session->sendMessageWithDictionary(message, recorded.reply());
    return recorded.result();
  }

  // Lines of the local message log, without their dates.
  std::vector<std::string> messageLog() const {
    std::vector<std::string> lines;
    for (const auto& [path, file] : platform.files->files) {
      std::string_view rest = file.content;
      while (!rest.empty()) {
        const std::string_view line = rest.substr(0, rest.find('\n'));
        rest.remove_prefix(std::min(rest.size(), line.size() + 1));
        const std::size_t dateEnd = line.find(") ");
        lines.emplace_back(dateEnd == line.npos ? line : line.substr(dateEnd + 2));
      }
    }
    return lines;
  }

  TestPlatform platform;
  std::shared_ptr<Journal> journal = std::make_shared<Journal>();
  std::shared_ptr<FakeSessionDelegate> agent = std::make_shared<FakeSessionDelegate>(journal);
  std::shared_ptr<FakeConnection> connection = std::make_shared<FakeConnection>();
  std::optional<BackendTable> table;
  std::vector<Creation> creations;
  std::shared_ptr<CorviddSession> session = newSession();

 private:
  static std::optional<Dictionary> copied(const Dictionary* dictionary) {
    return dictionary ? std::optional(*dictionary) : std::nullopt;
  }
};

}  // namespace corvid
