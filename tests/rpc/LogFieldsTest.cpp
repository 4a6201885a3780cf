// What stands beside the log lines of connections.
#include <gtest/gtest.h>
#include <sys/socket.h>

#include "base/UnixAddress.h"
#include "protocol/Reason.h"
#include "tests/fakes/LoggedFields.h"
#include "tests/rpc/ServiceFixture.h"

namespace corvid {
namespace {

class LineFields : public ServiceFixture {
 protected:
  Descriptor connect() const {
    Descriptor client(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    EXPECT_EQ(UnixAddress(path).connect(client.get()), 0);
    return client;
  }

  LoggedFields logged;
};

TEST_F(LineFields, LinesOfAConnectionsThreadAreItsSessions) {
  delegate->onSession = [](RecordingSession& session, const auto&) {
    session.subject = std::make_shared<LogSubject>(5);
    session.onDestruction = [] { logInfo("the session ends"); };
  };
  delegate->keepSessions = false;
  start();
  {
    const Descriptor client = connect();
    constexpr std::string_view noFrame = "no message begins so, whatever the length";
    ASSERT_GT(send(client.get(), noFrame.data(), noFrame.size(), 0), 0);
    ASSERT_TRUE(delegate->awaitInvalidated(0));
  }
  stop();
  EXPECT_EQ(logged.last("IPCConnection: connection 1 of").session, 5u);
  EXPECT_EQ(logged.last("the session ends").session, 5u);
}

TEST_F(LineFields, AConnectionTooManyHasItsReason) {
  EXPECT_FALSE(admitsConnection(1, 2, limits::connections, 0));
  const auto line = logged.last("IPCListener: Process 1, user 2");
  EXPECT_EQ(line.reason, "tooManyConnections");
  EXPECT_EQ(line.messageID, textOf(Reason::tooManyConnections).messageID);
}

}  // namespace
}  // namespace corvid
