// Clients that want the daemon to run out of descriptors.
#include <fcntl.h>
#include <fmt/format.h>
#include <gtest/gtest.h>
#include <sys/resource.h>

#include <algorithm>
#include <atomic>
#include <list>
#include <string>

#include "protocol/Limits.h"
#include "tests/attack/AttackFixture.h"
#include "tests/support/Waiting.h"

namespace corvid {
namespace {

// A grant whose removal is never answered.
class SilentGrant final : public wire::FileGrant::Server {
 public:
  explicit SilentGrant(int descriptor) : _descriptor(descriptor) {}
  kj::Maybe<int> getFd() override { return _descriptor; }
  kj::Promise<void> remove(RemoveContext) override { return kj::NEVER_DONE; }

 private:
  const int _descriptor;
};

struct DescriptorAttacks : AttackFixture {};

TEST_F(DescriptorAttacks, AThousandIdleConnectionsLeaveRoomForTheVictim) {
  std::list<RawClient> idle;
  for (const uid_t user : {attacker, secondAttacker})
    for (int i = 0; i < 500; ++i) {
      idle.push_back(connect(user));
      idle.back().write(bootstrap(0));
    }
  EXPECT_TRUE(bystanderReports());
  for (int i = 0; i < 20; ++i) {
    TestClient another(_root.path());
    EXPECT_EQ(another.configure({.clientType = 6}).text(), "httpPost");
  }
  EXPECT_GT(timesLogged("opened more than 256 connections of one user"), 0u);
  EXPECT_LT(_daemon->descriptors(), 2 * limits::connections);
}

TEST_F(DescriptorAttacks, WithFewDescriptorsAReserveIsLeftForWhatTheDaemonDoes) {
  const rlimit few{256, 256};
  ASSERT_EQ(prlimit(_daemon->pid(), RLIMIT_NOFILE, &few, nullptr), 0);
  std::list<RawClient> idle;
  for (int i = 0; i < 250; ++i) {
    idle.push_back(connect());
    idle.back().write(bootstrap(0));
  }
  EXPECT_TRUE(bystanderReports()) << "a post needs a descriptor too";
  EXPECT_GT(timesLogged("Too few descriptors are left for a connection of process"), 0u);
  EXPECT_LE(_daemon->descriptors(), 256u - 32u);
}

TEST_F(DescriptorAttacks, WithNoneLeftALineOfTheMessageLogIsLostAndNotTheLog) {
  const auto client = wireClient();
  configure(*client, attackersType);
  const auto refusedUpload = [&](const char* url) {
    auto request = client->session.uploadFileRequest();
    request.setReplyWanted(true);
    request.setFileURL(url);
    request.send().wait(client->scope);
  };
  refusedUpload("file:///before");
  rlimit limit{};
  ASSERT_EQ(prlimit(_daemon->pid(), RLIMIT_NOFILE, nullptr, &limit), 0);
  // All of these are taken, and still as many as a thread waits for at once.
  const rlimit none{8, limit.rlim_max};
  ASSERT_EQ(prlimit(_daemon->pid(), RLIMIT_NOFILE, &none, nullptr), 0);
  for (int i = 0; i < 10; ++i) refusedUpload("file:///lost");
  ASSERT_EQ(prlimit(_daemon->pid(), RLIMIT_NOFILE, &limit, nullptr), 0);
  refusedUpload("file:///after");
  const std::string log = messageLog();
  EXPECT_NE(log.find("file:///before\n"), std::string::npos);
  EXPECT_EQ(log.find("file:///lost\n"), std::string::npos) << "there was no descriptor";
  EXPECT_NE(log.find("file:///after\n"), std::string::npos);
}

TEST_F(DescriptorAttacks, RemovalsThatAreNeverAnsweredHoldFewDescriptorsAndNotForLong) {
  constexpr int clients = 17;
  constexpr int uploads = 40;
  const std::string file = _root.write("files/file", "content");
  const Descriptor descriptor(open(file.c_str(), O_RDONLY | O_CLOEXEC));
  const std::size_t before = _daemon->descriptors();
  std::atomic<int> answered = 0;
  std::atomic<std::size_t> most = 0;
  together(clients, [&](std::size_t) {
    const auto connected = wireClient();
    WireClient& client = *connected;
    configure(client, uploadClient);
    std::list<kj::Promise<void>> calls;
    for (int i = 0; i < uploads; ++i) {
      auto request = client.session.uploadFileRequest();
      request.setReplyWanted(true);
      request.setFileURL(file);
      request.setFile(kj::heap<SilentGrant>(descriptor.get()));
      calls.push_back(request.send().ignoreResult().then([&] { ++answered; }));
    }
    for (kj::Promise<void>& call : calls) {
      call.wait(client.scope);
      most = std::max<std::size_t>(most, _daemon->descriptors());
    }
  });
  EXPECT_EQ(answered, clients * uploads) << "each upload is answered, whether or not its file goes";
  RecordProperty("most_descriptors", static_cast<int>(most));
  EXPECT_LT(most, before + 2 * clients + 128 + 64) << "128 files of one user, and what posts need";
}

}  // namespace
}  // namespace corvid
