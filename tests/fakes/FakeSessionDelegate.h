// An agent that notes what sessions ask and answers as the test says.
#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <utility>

#include "platform/Platform.h"
#include "session/CorviddSession.h"
#include "session/CorviddSessionDelegate.h"
#include "tests/fakes/Journal.h"

namespace corvid {

class FakeSessionDelegate final : public CorviddSessionDelegate {
 public:
  explicit FakeSessionDelegate(std::shared_ptr<Journal> journal) : _journal(std::move(journal)) {}

  Result<std::optional<Dictionary>> storebagForSession(CorviddSession&) override {
    _journal->add("agent storebagForSession");
    if (storebagFailure) return *storebagFailure;
    return storebag;
  }
  std::optional<std::string> storebagVersionForSession(CorviddSession&) override {
    _journal->add("agent storebagVersionForSession");
    return storebagVersion;
  }
  Reason whyNoStorebagForSession(CorviddSession&) override { return whyNoStorebag; }
  const std::shared_ptr<Ledger>& ledger() const override { return _ledger; }
  std::uint64_t nextSessionNumber() override { return ++sessions; }
  void userInfoUpdatedForSession(CorviddSession&) override {
    _journal->add("agent userInfoUpdatedForSession");
    if (onUserInfoUpdated) onUserInfoUpdated();
  }
  CorviddSession* getAncestorWithAggregatorForSession(CorviddSession&) override {
    _journal->add("agent getAncestorWithAggregatorForSession");
    return ancestor.get();
  }
  void updateDownstreamSessions(CorviddSession&) override {
    _journal->add("agent updateDownstreamSessions");
  }
  RecursiveMutex& mutex() override { return _mutex; }
  std::string description() const override { return "fake agent"; }

  // Answers.
  std::optional<Dictionary> storebag;
  std::optional<std::string> storebagVersion;
  std::optional<Failure> storebagFailure;
  Reason whyNoStorebag = Reason::storebagUnreachable;
  std::uint64_t sessions = 0;  // that were numbered
  std::shared_ptr<CorviddSession> ancestor;
  // Run when a session is to be regrouped.
  std::function<void()> onUserInfoUpdated;

 private:
  const std::shared_ptr<Journal> _journal;
  RecursiveMutex _mutex;
  const std::shared_ptr<Ledger> _ledger = Ledger::create(Platform::current().clock());
};

}  // namespace corvid
