// A database for the cases of one program, emptied for each of them.
#pragma once

#include <fmt/format.h>
#include <gtest/gtest.h>

#include <memory>
#include <string>

#include "gateway/loader/Store.h"
#include "tests/gateway/engines/ScratchPostgres.h"

namespace corvid::fleet {

class LoaderFixture : public ::testing::Test {
 protected:
  LoaderFixture() {
    static ScratchPostgres server;
    _server = &server;
    Database(_server->target()).runAll("DROP SCHEMA IF EXISTS corvid CASCADE");
  }

  // The first field of the first row.
  std::string ask(const std::string& question) const {
    const auto rows = Database(_server->target()).run(question);
    return rows.empty() || !rows[0].at(0) ? "" : *rows[0][0];
  }

  static LoggedMessage post(std::size_t number, std::size_t events = 2,
                            const std::string& client = "C-1") {
    std::string body = fmt::format(R"({{"postTime":1.5,"clientId":"{}","events":[)", client);
    for (std::size_t event = 0; event < events; ++event)
      body += fmt::format(
          R"({}{{"number":{},"_sender":"ZH","_method":7,"_status":{},"_sessionID":"root.child",)"
          R"("_build":"6.1","_clientVersion":3,"_eventNumber":{},"eventTime":1795255260.003391}})",
          event == 0 ? "" : ",", number, event, event + 1);
    return message(fmt::format("id-{}", number), body + "]}");
  }
  static LoggedMessage message(const std::string& id, const std::string& body,
                               const std::string& stream = "events") {
    LoggedMessage logged;
    logged.message = {.stream = stream,
                      .id = id,
                      .headers = {{"received", "1795255262.334619"}, {"X-CVD-Sender", "HZ"}},
                      .body = body};
    return logged;
  }

  ScratchPostgres* _server = nullptr;
};

}  // namespace corvid::fleet
