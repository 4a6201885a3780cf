// Descriptors that travel with messages.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <chrono>
#include <cstring>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "base/Descriptor.h"
#include "protocol/corvid.capnp.h"
#include "protocol/wire/MessageSocket.h"
#include "tests/rpc/RawMessages.h"

namespace corvid::wire {
namespace {

std::string messageWith(const std::string& text) {
  capnp::MallocMessageBuilder message;
  message.initRoot<PropertyValue>().setText(text);
  return bytesOf(message);
}

class MessageSocketTest : public testing::Test {
 protected:
  struct Received {
    std::string text;
    std::size_t descriptors;
  };

  ~MessageSocketTest() noexcept override {}

  // Writes bytes as the peer, in one go, with the pipe's writing end so many times.
  void send(const std::string& bytes, std::size_t descriptors) {
    iovec piece{const_cast<char*>(bytes.data()), bytes.size()};
    msghdr message{};
    message.msg_iov = &piece;
    message.msg_iovlen = 1;
    std::vector<char> control(CMSG_SPACE(descriptors * sizeof(int)));
    if (descriptors > 0) {
      message.msg_control = control.data();
      message.msg_controllen = control.size();
      cmsghdr* const header = CMSG_FIRSTHDR(&message);
      header->cmsg_level = SOL_SOCKET;
      header->cmsg_type = SCM_RIGHTS;
      header->cmsg_len = CMSG_LEN(descriptors * sizeof(int));
      const std::vector<int> numbers(descriptors, writable.get());
      std::memcpy(CMSG_DATA(header), numbers.data(), descriptors * sizeof(int));
    }
    ASSERT_EQ(sendmsg(theirs.get(), &message, 0), static_cast<ssize_t>(bytes.size()));
  }
  // The next message; the text of the broken rule where there is one. Closes its descriptors.
  Received receive(std::size_t room = 1) {
    auto space = kj::heapArray<kj::AutoCloseFd>(room);
    try {
      auto incoming = socket.tryReadMessage(space, {}, nullptr).wait(scope);
      KJ_IF_MAYBE (message, incoming) {
        const std::string text = message->reader->getRoot<PropertyValue>().getText();
        return {text, message->fds.size()};
      }
      return {"end", 0};
    } catch (const kj::Exception& exception) {
      return {exception.getDescription().cStr(), 0};
    }
  }
  // Nobody but the test holds the pipe's writing end.
  bool allAreClosed() {
    writable.reset();
    char byte;
    return read(readable.get(), &byte, 1) == 0;
  }

  struct Ends {
    Descriptor one;
    Descriptor other;
  };
  static Ends sockets() {
    std::array<int, 2> ends{-1, -1};
    EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends.data()), 0);
    return {Descriptor(ends[0]), Descriptor(ends[1])};
  }
  static Ends pipe() {
    std::array<int, 2> ends{-1, -1};
    EXPECT_EQ(pipe2(ends.data(), O_CLOEXEC | O_NONBLOCK), 0);
    return {Descriptor(ends[0]), Descriptor(ends[1])};
  }

  Ends _sockets = sockets();
  Descriptor mine = std::move(_sockets.one);
  Descriptor theirs = std::move(_sockets.other);
  Ends _pipe = pipe();
  Descriptor readable = std::move(_pipe.one);
  Descriptor writable = std::move(_pipe.other);
  SocketPort port{mine.get()};
  kj::EventLoop loop{port};
  kj::WaitScope scope{loop};
  MessageSocket socket{port};
};

TEST_F(MessageSocketTest, ADescriptorBelongsToTheMessageThatItCameWith) {
  send(messageWith("first"), 0);
  send(messageWith("second"), 1);
  send(messageWith("third"), 0);
  send(messageWith("fourth"), 1);
  const std::vector<std::pair<std::string, std::size_t>> expected{
      {"first", 0}, {"second", 1}, {"third", 0}, {"fourth", 1}};
  for (const auto& [text, descriptors] : expected) {
    const Received received = receive();
    EXPECT_EQ(received.text, text);
    EXPECT_EQ(received.descriptors, descriptors) << text;
  }
  EXPECT_TRUE(allAreClosed());
}

TEST_F(MessageSocketTest, AMessageInPiecesKeepsTheDescriptorOfItsFirst) {
  const std::string large = messageWith(std::string(100'000, 'x'));
  send(large.substr(0, 5), 1);
  send(large.substr(5, 20'000), 0);
  send(large.substr(20'005), 0);
  EXPECT_EQ(receive().descriptors, 1u);
  EXPECT_TRUE(allAreClosed());
}

TEST_F(MessageSocketTest, OfTwoMessagesInOneGoTheLastGetsTheDescriptor) {
  send(messageWith("first") + messageWith("second"), 1);
  EXPECT_EQ(receive().descriptors, 0u);
  EXPECT_EQ(receive().descriptors, 1u);
}

TEST_F(MessageSocketTest, MoreDescriptorsThanTheLimitBreakARule) {
  send(messageWith("greedy"), 2);
  EXPECT_EQ(receive().text, "a message with more than 1 descriptors");
}

TEST_F(MessageSocketTest, DescriptorsThatTrickleInBreakTheSameRule) {
  const std::string message = messageWith("greedy");
  send(message.substr(0, 1), 1);
  send(message.substr(1, 1), 1);
  EXPECT_EQ(receive().text, "a message with more than 1 descriptors");
}

TEST_F(MessageSocketTest, DescriptorsInTheMiddleAndAtTheEndBreakItToo) {
  const std::string message = messageWith("greedy");
  send(message.substr(0, 10), 1);
  send(message.substr(10), 1);
  EXPECT_EQ(receive().text, "a message with more than 1 descriptors");
}

TEST_F(MessageSocketTest, WhoeverHasNoRoomForDescriptorsNeverGetsAny) {
  send(messageWith("text"), 1);
  EXPECT_EQ(receive(0).text, "text");
  EXPECT_TRUE(allAreClosed());
}

TEST_F(MessageSocketTest, DescriptorsLeaveWithTheFirstByteOfTheirMessage) {
  for (const std::size_t size : {std::size_t{10}, std::size_t{1} << 20}) {
    capnp::MallocMessageBuilder before;
    before.initRoot<PropertyValue>().setText("before");
    capnp::MallocMessageBuilder with;
    with.initRoot<PropertyValue>().setText(std::string(size, 'x'));
    const int descriptor = writable.get();
    auto written =
        socket.writeMessage(nullptr, before.getSegmentsForOutput())
            .then([&] {
              return socket.writeMessage(kj::arrayPtr(&descriptor, 1), with.getSegmentsForOutput());
            })
            .eagerlyEvaluate(nullptr);
    SocketPort peerPort(theirs.get());
    // Both ends share one thread: the peer's end only looks at what is there.
    std::string bytes;
    std::optional<std::size_t> descriptorAt;
    const std::size_t all = bytesOf(before).size() + bytesOf(with).size();
    while (bytes.size() < all) {
      scope.poll();
      std::vector<char> buffer(4096);
      iovec piece{buffer.data(), buffer.size()};
      alignas(cmsghdr) std::array<char, CMSG_SPACE(sizeof(int))> control;
      msghdr message{};
      message.msg_iov = &piece;
      message.msg_iovlen = 1;
      message.msg_control = control.data();
      message.msg_controllen = control.size();
      const ssize_t received = recvmsg(theirs.get(), &message, MSG_DONTWAIT | MSG_CMSG_CLOEXEC);
      if (received < 0) continue;
      if (message.msg_controllen > 0) {
        EXPECT_FALSE(descriptorAt);
        descriptorAt = bytes.size();
        int passed;
        std::memcpy(&passed, CMSG_DATA(CMSG_FIRSTHDR(&message)), sizeof passed);
        close(passed);
      }
      bytes.append(buffer.data(), static_cast<std::size_t>(received));
    }
    EXPECT_EQ(bytes, bytesOf(before) + bytesOf(with));
    // What left before may be received in the same go.
    EXPECT_TRUE(descriptorAt && *descriptorAt <= bytesOf(before).size());
    written.wait(scope);
  }
}

TEST_F(MessageSocketTest, AMessageThatIsNotCompleteInItsTimeBreaksARule) {
  MessageSocket slow(port, {{}, 1 * kj::SECONDS});
  const std::string bytes = messageWith("a text of some length");
  const auto receiveSlowly = [&] {
    return slow.tryReadMessage(nullptr, {}, nullptr).wait(scope) != nullptr;
  };
  send(bytes, 0);
  EXPECT_TRUE(receiveSlowly());
  send(bytes.substr(0, 20), 0);
  const auto start = std::chrono::steady_clock::now();
  try {
    receiveSlowly();
    ADD_FAILURE() << "it came";
  } catch (const kj::Exception& exception) {
    EXPECT_STREQ(exception.getDescription().cStr(), "a message that was not complete after 1 s");
  }
  EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(990));
}

TEST_F(MessageSocketTest, AMessageThatWaitsForMemoryComesWhenThereIsSome) {
  int refusals = 3;
  MessageSocket strict(port, {[&](std::size_t) -> std::shared_ptr<void> {
                                if (refusals-- > 0) return nullptr;
                                return std::make_shared<int>();
                              },
                              20 * kj::SECONDS});
  send(messageWith(std::string(50'000, 'x')), 0);
  auto incoming = strict.tryReadMessage(nullptr, {}, nullptr).wait(scope);
  EXPECT_TRUE(incoming != nullptr);
  EXPECT_LT(refusals, 0);
}

}  // namespace
}  // namespace corvid::wire
