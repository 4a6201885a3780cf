// An agent that notes what sessions ask and answers as the test says.
#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <utility>

#include "session/CorviddSession.h"
#include "session/CorviddSessionDelegate.h"
#include "tests/fakes/Journal.h"

namespace corvid {

class FakeSessionDelegate final : public CorviddSessionDelegate {
 public:
  explicit FakeSessionDelegate(std::shared_ptr<Journal> journal) : _journal(std::move(journal)) {}

  std::optional<Dictionary> storebagForSession(CorviddSession&) override {
    _journal->add("agent storebagForSession");
    if (onStorebag) onStorebag();
    return storebag;
  }
  std::optional<std::string> storebagVersionForSession(CorviddSession&) override {
    _journal->add("agent storebagVersionForSession");
    return storebagVersion;
  }
  std::optional<std::string> parentSessionIDStringForSession(CorviddSession&) override {
    return parentSessionIDString;
  }
  void userInfoUpdatedForSession(CorviddSession&) override {
    _journal->add("agent userInfoUpdatedForSession");
  }
  std::shared_ptr<CorviddSession> getAncestorWithAggregatorForSession(CorviddSession&) override {
    _journal->add("agent getAncestorWithAggregatorForSession");
    return handOut(ancestor);
  }
  void updateDownstreamSessions(CorviddSession&) override {
    _journal->add("agent updateDownstreamSessions");
  }
  std::shared_ptr<CorviddSession> parentSessionForChild(CorviddSession&) override {
    if (onParent) onParent();
    return handOut(parent);
  }
  RecursiveMutex& mutex() override { return _mutex; }
  std::string description() const override { return "fake agent"; }

  // Answers.
  std::optional<Dictionary> storebag;
  std::optional<std::string> storebagVersion;
  std::optional<std::string> parentSessionIDString;
  std::shared_ptr<CorviddSession> ancestor;
  std::shared_ptr<CorviddSession> parent;
  // Forgets a session when it hands it out, so that the caller holds the last reference.
  bool forgetsWhatItHandsOut = false;
  // Run when the question comes.
  std::function<void()> onStorebag;
  std::function<void()> onParent;

 private:
  std::shared_ptr<CorviddSession> handOut(std::shared_ptr<CorviddSession>& session) const {
    return forgetsWhatItHandsOut ? std::exchange(session, nullptr) : session;
  }

  const std::shared_ptr<Journal> _journal;
  RecursiveMutex _mutex;
};

}  // namespace corvid
