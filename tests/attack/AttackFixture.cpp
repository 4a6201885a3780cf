#include "tests/attack/AttackFixture.h"

#include <capnp/serialize.h>
#include <fmt/format.h>
#include <sys/resource.h>
#include <sys/stat.h>

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <utility>

#include "base/Sanitizer.h"
#include "protocol/Limits.h"
#include "tests/rpc/TestGrant.h"

namespace corvid {

namespace {

constexpr std::uint16_t setSessionInfo = 0;
constexpr std::uint16_t startConfig = 1;
constexpr std::uint16_t sendMessages = 4;

}  // namespace

void AttackFixture::SetUp() {
  if (getuid() != 0) GTEST_SKIP() << "only the superuser can be several users";
  ASSERT_EQ(chmod(_root.path().c_str(), 0755), 0);
  for (const uid_t user : {attacker, secondAttacker})
    _root.write(fmt::format("etc/corvid/entitlements.d/{}.plist", user),
                fmt::format(R"(<plist version="1.0"><dict>
<key>match</key><dict><key>user</key><integer>{}</integer></dict>
<key>entitlements</key><dict><key>com.halcyon.private.corvidd</key><true/></dict>
</dict></plist>)",
                            user));
  publish("lumen", storebagPostingTo(urlOf("events")));
  launch();
  admitBystander();
}

void AttackFixture::TearDown() {
  if (!_daemon) return;
  EXPECT_TRUE(bystanderReports()) << _daemon->standardError();
  LabFixture::TearDown();
  _daemon.reset();  // which ends what goes on for ever
  awaitStarted();
}

std::string AttackFixture::messageLog() const {
  std::string content;
  for (const auto& file : std::filesystem::directory_iterator(
           _root.path("var/lib/corvidd/Library/Logs/Faultline/Retired")))
    content += contentOf(file.path());
  return content;
}

RawClient AttackFixture::connect(uid_t user) const {
  const AsUser as(user);
  return RawClient(socketPath());
}

RawClient AttackFixture::session(uid_t user, bool batches) const {
  RawClient client = connect(user);
  client.write(bootstrap(0) + describe(attackersType, batches));
  return client;
}

std::unique_ptr<WireClient> AttackFixture::wireClient(uid_t user) const {
  const AsUser as(user);
  return std::make_unique<WireClient>(socketPath());
}

std::unique_ptr<WireClient> AttackFixture::wireClient(
    uid_t user, kj::Own<wire::ClientSessionReply::Server> replies) const {
  const AsUser as(user);
  return std::make_unique<WireClient>(socketPath(), kj::mv(replies));
}

void AttackFixture::configure(WireClient& client, int clientType, const Dictionary& userInfo,
                              bool aggregates) {
  const Dictionary sessionInfo{
      {"ClientType", clientType}, {"SessionID", 66}, {"RequireUserInfo", !userInfo.empty()}};
  auto info = client.session.setSessionInfoRequest();
  fill(info.initSessionInfo(wire::count(sessionInfo.size())), sessionInfo);
  if (!userInfo.empty()) fill(info.initUserInfo(wire::count(userInfo.size())), userInfo);
  info.setHasAggregationBlock(aggregates);
  info.send().wait(client.scope);
  client.session.startConfigRequest().send().wait(client.scope);
}

bool AttackFixture::upload(WireClient& client, int descriptor, const std::string& url) {
  int removals = 0;
  auto request = client.session.uploadFileRequest();
  request.setReplyWanted(true);
  request.setFileURL(url);
  if (descriptor >= 0) request.setFile(kj::heap<TestGrant>(descriptor, removals));
  return request.send().wait(client.scope).getSuccess();
}

bool AttackFixture::awaitAnswer(RawClient& client, std::uint32_t question) {
  const timeval bound{60, 0};
  setsockopt(client.socket.get(), SOL_SOCKET, SO_RCVTIMEO, &bound, sizeof bound);
  try {
    for (;;) {
      capnp::StreamFdMessageReader reader(client.socket.get());
      const auto message = reader.getRoot<capnp::rpc::Message>();
      if (message.isReturn() && message.getReturn().getAnswerId() == question) return true;
      if (message.isAbort()) return false;
    }
  } catch (const kj::Exception&) {
    return false;
  }
}

void AttackFixture::together(std::size_t count, const std::function<void(std::size_t)>& attack) {
  std::vector<std::jthread> threads;
  for (std::size_t i = 0; i < count; ++i) threads.emplace_back([&, i] { attack(i); });
}

void AttackFixture::start(std::function<void()> work) {
  _started.emplace_back([work = std::move(work)] {
    setpriority(PRIO_PROCESS, static_cast<id_t>(gettid()), 19);
    try {
      work();
    } catch (const std::exception&) {
      // The daemon has ended.
    }
  });
}

void AttackFixture::start(uid_t user, std::function<void(WireClient&)> work) {
  start([this, user, work = std::move(work)] { work(*wireClient(user)); });
}

std::chrono::milliseconds AttackFixture::victimWaits(const std::function<bool()>& isOver) {
  constexpr std::size_t least = 200;
  std::vector<std::chrono::steady_clock::duration> waits;
  while (waits.size() < least || !isOver()) {
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(sendAsBystander(), "none");
    waits.push_back(std::chrono::steady_clock::now() - start);
  }
  std::ranges::sort(waits);
  return std::chrono::duration_cast<std::chrono::milliseconds>(
      waits[(waits.size() * 99 + 99) / 100 - 1]);
}

void AttackFixture::expectVictimWaitsLittle(const std::function<bool()>& isOver) {
  const std::chrono::milliseconds waits = victimWaits(isOver);
  RecordProperty("victim_waits_ms", static_cast<int>(waits.count()));
  EXPECT_LT(waits, slowness * std::chrono::milliseconds(100));
}

void AttackFixture::expectPeakBelow(std::size_t bytes) const {
  const std::size_t peak = _daemon->peakMemory();
  RecordProperty("peak_mebibytes", static_cast<int>(peak / mebibyte));
  EXPECT_LT(peak, slowness * bytes) << "peak of " << peak / mebibyte << " MiB";
}

std::string AttackFixture::announcement() {
  constexpr std::size_t words = limits::messageBytes / 8 - 1;
  return numbers({0, static_cast<std::uint32_t>(words)}) + std::string(64 * 1024, '\0');
}

std::string AttackFixture::noise(std::size_t bytes) {
  std::string noise(bytes, '\0');
  std::uint64_t state = 1;
  for (std::size_t at = 0; at + 8 <= bytes; at += 8) {
    state ^= state << 13;
    state ^= state >> 7;
    state ^= state << 17;
    std::memcpy(&noise[at], &state, 8);
  }
  return noise;
}

std::string AttackFixture::describe(int clientType, bool batches) {
  const Dictionary info{{"ClientType", clientType}, {"SessionID", 1}, {"BatchEvent", batches}};
  return call(1, setSessionInfo,
              [&](capnp::rpc::Payload::Builder parameters) {
                auto content =
                    parameters.getContent().initAs<wire::ClientSession::SetSessionInfoParams>();
                fill(content.initSessionInfo(3), info);
              }) +
         call(2, startConfig, [](capnp::rpc::Payload::Builder parameters) {
           parameters.getContent().initAs<wire::ClientSession::StartConfigParams>().setReplyWanted(
               true);
         });
}

std::string AttackFixture::event(std::uint32_t question, const Dictionary& payload,
                                 bool replyWanted) {
  return call(question, sendMessages, [&](capnp::rpc::Payload::Builder parameters) {
    auto message =
        parameters.getContent().initAs<wire::ClientSession::SendMessagesParams>().initMessages(
            1)[0];
    message.setReplyWanted(replyWanted);
    auto event = message.initEvent();
    event.setCategory(7);
    event.setType(2);
    fill(event.initPayload(wire::count(payload.size())), payload);
  });
}

}  // namespace corvid
