// The real daemon beside a lab: every server it needs, on this machine.
#pragma once

#include <gtest/gtest.h>

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "base/Value.h"
#include "tests/e2e/DaemonProcess.h"
#include "tests/e2e/TestClient.h"
#include "tests/support/SigningKeys.h"
#include "tools/lab/Lab.h"

namespace corvid {

class LabFixture : public testing::Test {
 protected:
  LabFixture() : LabFixture(lab::Lab::Options{}) {}
  explicit LabFixture(lab::Lab::Options options) : _lab(_root.path(), options) {}

  // Whatever a test and its faults did to the daemon, none of its events is missing.
  void TearDown() override;

  // In its sandbox, with its log, debug lines included, on standard error.
  void startDaemon(std::vector<std::string> arguments = {});
  // How often the log holds that text.
  std::size_t timesLogged(std::string_view fragment) const;

  // "events", "realtime" or "storebags" of the lab.
  std::string urlOf(std::string_view server) const;
  // Plans what a server of the lab does wrong, as its control address takes it.
  void plan(const std::string& server, Dictionary fault);
  // Publishes under a storebag name.
  void publish(const std::string& name, const Dictionary& storebag) const;
  // A storebag whose clients report at once, whatever they are, to this address. Further entries
  // add to the client entry.
  static Dictionary storebagPostingTo(const std::string& url, const Dictionary& more = {});
  // What a client entry needs besides, so that clients that require user info report too.
  static Dictionary admitsEverybody();
  // The same, for clients whose events wait for a flush.
  static Dictionary batchesForEverybody();

  // What the collectors have received so far, oldest first: their log, and the records in it.
  const std::vector<Dictionary>& received();
  std::vector<Dictionary> records();
  // The records that hold this text under "mark".
  std::size_t arrivals(std::string_view mark);

  // Another client, of type 6, whose collector works well: configures it, to be called before
  // anything goes wrong, and says whether an event of it still reaches its collector.
  void admitBystander();
  bool bystanderReports();
  // Sends an event of it: how that call ended.
  std::string sendAsBystander();
  // How many of its events have not arrived so far.
  std::size_t bystandersMissing();

  ScratchLab _root;
  lab::Lab _lab;
  std::optional<DaemonProcess> _daemon;

 private:
  std::optional<TestClient> _bystander;
  int _bystanderEvents = 0;
  std::vector<Dictionary> _received;
  std::size_t _bytesRead = 0;  // of the collectors' log
};

}  // namespace corvid
