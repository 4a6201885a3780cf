// What packets hold, what is said of them, and what becomes of them without memory.
#include <new>

#include "tests/backends/dashboard/DashboardFixture.h"

namespace {
// Of allocations that are allowed to fail.
bool memoryIsGone = false;
}  // namespace

void* operator new(std::size_t size, const std::nothrow_t&) noexcept {
  if (memoryIsGone) return nullptr;
  try {
    return ::operator new(size);
  } catch (const std::bad_alloc&) {
    return nullptr;
  }
}

void* operator new[](std::size_t size, const std::nothrow_t&) noexcept {
  if (memoryIsGone) return nullptr;
  try {
    return ::operator new[](size);
  } catch (const std::bad_alloc&) {
    return nullptr;
  }
}

namespace corvid {
namespace {

using Lines = std::vector<std::string>;

class PacketSenderTest : public DashboardFixture {};

TEST_F(PacketSenderTest, FillsThePacketFromItsFields) {
  identity = {.sessionID = 42, .compType = 256 + 5, .clientVersion = 3, .udid = udid};
  identity.setSelfVersion("8.1");
  ASSERT_TRUE(make(plainProfile()));
  const Dictionary payload{{"k", "v"}};
  backend->packets().send(&payload, {0x1'0000'0007, 999'999}, 65535, 2, EventID{258});
  network.runTasks();
  const TagReportingPacketHeader header = lastHeader();
  EXPECT_EQ(header.selfVersionMajor, 8);
  EXPECT_EQ(header.compType, 5);
  EXPECT_EQ(header.packetKind, 1);
  EXPECT_EQ(header.msec4, 249);
  EXPECT_EQ(header.timestamp, 7u);
  EXPECT_EQ(header.sessionID, 42u);
  EXPECT_EQ(header.clientVersion, 3);
  EXPECT_EQ(header.method, 65535);
  EXPECT_EQ(header.respCode, 2);
  EXPECT_EQ(header.udidText(), udid);
  EXPECT_EQ(header.eventID, 258);
  EXPECT_EQ(network.socket().sent.back().substr(64), " k=v");
}

TEST_F(PacketSenderTest, AnswersWithTheLogLineOfThePacket) {
  identity = {.sessionID = 4000000000, .compType = 5, .clientVersion = 3, .udid = udid};
  ASSERT_TRUE(make(plainProfile()));
  const Dictionary payload{{"name", "a=b"}, {"n", 1}};
  EXPECT_EQ(
      backend->packets().send(&payload, {1'700'000'000, 999'999}, 7, 65535, EventID{258}),
      "1700000000.996 0123456789abcdef0123456789abcdef01234567 127.0.0.1 ZH     3 4000000000   "
      "258     7 65535  n=1 name=a\\=b");
  EXPECT_EQ(
      backend->packets().send(nullptr, {5, 3999}, 0, 0, EventID{0}),
      "5.000 0123456789abcdef0123456789abcdef01234567 127.0.0.1 ZH     3 4000000000     0     "
      "0     0 ");
}

TEST_F(PacketSenderTest, AComponentTypeOutsideTheTableHasNoTag) {
  for (const int type : {18, 255, -1}) {
    identity.compType = type;
    ASSERT_TRUE(make(plainProfile()));
    EXPECT_EQ(backend->packets().send(nullptr, {5, 0}, 1, 2, EventID{3}),
              "5.000  127.0.0.1      0     0     3     1     2 ")
        << type;
  }
}

TEST_F(PacketSenderTest, ALogLineIsCutAndMadeReadable) {
  identity.udid = udid;
  ASSERT_TRUE(make(plainProfile()));
  const Dictionary payload{{"k", std::string(1019, 'x') + "ä"}};
  const std::string line = send(1, payload);
  EXPECT_TRUE(line.ends_with("xx\xEF\xBF\xBD")) << "half a character was left of the last";
  EXPECT_EQ(network.socket().sent.back().size(), 1087u);
}

TEST_F(PacketSenderTest, ThereIsNoLineWithoutMemoryForThePacket) {
  ASSERT_TRUE(make(plainProfile()));
  memoryIsGone = true;
  const auto line = backend->packets().send(nullptr, {}, 1, 2, EventID{3});
  memoryIsGone = false;
  network.runTasks();
  EXPECT_EQ(line, std::nullopt);
  EXPECT_EQ(errors(), Lines{"DashboardBackend(sendMessage): can't malloc."});
  EXPECT_EQ(network.socket().attempts, 0);
}

TEST_F(PacketSenderTest, APacketThatThereIsNoMemoryToKeepIsSentOnce) {
  ASSERT_TRUE(make(reliableProfile()));
  const auto sendWithoutMemory = [&](std::uint16_t event) {
    backend->packets().send(nullptr, {}, 1, 2, EventID{event});
    memoryIsGone = true;
    network.runTasks();
    memoryIsGone = false;
  };
  sendWithoutMemory(1);
  network.refusesSends = true;
  sendWithoutMemory(2);
  EXPECT_EQ(fates, (Fates{{1, PacketFate::sent}, {2, PacketFate::dropped}}));
  EXPECT_EQ(network.armedTimers(), 0u);
  EXPECT_EQ(sent(), 1u);
}

}  // namespace
}  // namespace corvid
