#include <capnp/message.h>
#include <capnp/serialize.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <string>
#include <vector>

#include "base/LittleEndian.h"
#include "protocol/Limits.h"
#include "protocol/wire/FrameReader.h"
#include "protocol/wire/ValueCodec.h"
#include "tests/rpc/RawMessages.h"

namespace corvid::wire {
namespace {

std::string frameWith(const std::string& text) {
  capnp::MallocMessageBuilder message;
  message.initRoot<PropertyValue>().setText(text);
  const auto words = capnp::messageToFlatArray(message);
  const auto bytes = words.asBytes();
  return {reinterpret_cast<const char*>(bytes.begin()), bytes.size()};
}

// Feeds bytes, at most `step` at a time, and gives each message to `take`.
template <class Take>
void feed(FrameReader& reader, std::string_view bytes, std::size_t step, Take take) {
  while (!bytes.empty()) {
    kj::ArrayPtr<kj::byte> space = reader.space();
    const std::size_t count = std::min({step, space.size(), bytes.size()});
    std::memcpy(space.begin(), bytes.data(), count);
    reader.filled(count);
    bytes.remove_prefix(count);
    for (;;) {
      kj::Own<capnp::MessageReader> message = reader.next();
      if (message.get() == nullptr) break;
      take(kj::mv(message));
    }
  }
}

std::vector<std::string> textsOf(FrameReader& reader, std::string_view bytes, std::size_t step) {
  std::vector<std::string> texts;
  feed(reader, bytes, step, [&](kj::Own<capnp::MessageReader> message) {
    texts.emplace_back(message->getRoot<PropertyValue>().getText().cStr());
  });
  return texts;
}

std::size_t messagesIn(std::string_view bytes) {
  FrameReader reader;
  std::size_t messages = 0;
  feed(reader, bytes, bytes.size(), [&](auto) { ++messages; });
  return messages;
}

TEST(FrameReader, TakesMessagesHoweverTheStreamIsCut) {
  const std::vector<std::string> texts{"a", std::string(50000, 'b'), "", std::string(300, 'c')};
  std::string stream;
  for (const std::string& text : texts) stream += frameWith(text);
  for (const std::size_t step : {1u, 7u, 8u, 4096u, 1000000u}) {
    FrameReader reader;
    EXPECT_EQ(textsOf(reader, stream, step), texts) << step;
  }
}

TEST(FrameReader, TakesManySmallMessagesFromOneRead) {
  std::string stream;
  for (int i = 0; i < 1000; ++i) stream += frameWith("x");
  FrameReader reader;
  EXPECT_EQ(textsOf(reader, stream, stream.size()).size(), 1000u);
}

TEST(FrameReader, GivesNothingForATruncatedMessage) {
  const std::string stream = frameWith("text");
  FrameReader reader;
  EXPECT_TRUE(textsOf(reader, std::string_view(stream).substr(0, stream.size() - 1), 100).empty());
}

TEST(FrameReader, TakesAsManySegmentsAsTheLimitAndNoMore) {
  const auto frame = [](std::size_t segments) {
    std::vector<std::uint32_t> header((segments / 2 + 1) * 2);
    header[0] = static_cast<std::uint32_t>(segments - 1);
    return numbers(header);
  };
  EXPECT_EQ(messagesIn(frame(limits::segmentsPerMessage)), 1u);
  EXPECT_THROW(messagesIn(frame(limits::segmentsPerMessage + 1)), BrokenRule);
  EXPECT_THROW(messagesIn(numbers({0xffffffff, 0})), BrokenRule);
}

TEST(FrameReader, TakesAMessageAsLargeAsTheLimitAndNoLarger) {
  constexpr auto most = static_cast<std::uint32_t>(limits::messageBytes / 8);
  std::string stream = numbers({0, most - 1});
  stream.resize(limits::messageBytes);
  EXPECT_EQ(messagesIn(stream), 1u);
  EXPECT_THROW(messagesIn(numbers({0, most})), BrokenRule);
  // Sizes that would wrap around when added up.
  EXPECT_THROW(messagesIn(numbers({2, 0xffffffff, 0xffffffff, 0xffffffff})), BrokenRule);
}

TEST(FrameReader, BoundsWhatSharedPointersCanBeReadAs) {
  // A list of 1000 pointers that all lead to one text of 64 KiB.
  capnp::MallocMessageBuilder message(20000);
  auto list = message.initRoot<PropertyValue>().initList(1000);
  list[0].setText(std::string(65536, 'x'));
  kj::Array<capnp::word> words = capnp::messageToFlatArray(message);
  std::string stream(reinterpret_cast<const char*>(words.asBytes().begin()),
                     words.asBytes().size());
  // Every element gets the first one's tag and a pointer to the same place. Element: two words of
  // data, then the pointer; a pointer's offset counts from its own end.
  const auto word = [&](std::size_t at) { return stream.data() + at * 8; };
  const std::size_t first = 1 + 1 + 4 + 1;  // frame header, root pointer, root, list tag
  const auto offset = loadLittle<std::int32_t>(word(first + 2));
  for (std::size_t i = 1; i < 1000; ++i) {
    std::memcpy(word(first + 4 * i), word(first), 24);
    storeLittle(word(first + 4 * i + 2), offset - static_cast<std::int32_t>(4 * 4 * i));
  }
  FrameReader reader;
  kj::Own<capnp::MessageReader> read;
  feed(reader, stream, stream.size(), [&](auto message_) { read = kj::mv(message_); });
  ASSERT_NE(read.get(), nullptr);
  const auto values = read->getRoot<PropertyValue>().getList();
  EXPECT_EQ(values[0].getText().size(), 65536u);
  EXPECT_EQ(values[999].getText().size(), 65536u);
  EXPECT_THROW(ValueDecoder().array(values), kj::Exception);
}

TEST(FrameReader, ALargeMessageWaitsForItsMemoryAndHoldsItAsLongAsItLives) {
  std::vector<std::size_t> asked;
  std::shared_ptr<void> memory;
  FrameReader reader([&](std::size_t bytes) {
    asked.push_back(bytes);
    return memory;
  });
  const std::string small = frameWith("small");
  const std::string large = frameWith(std::string(100'000, 'x'));
  const auto give = [&](std::string_view bytes) {
    kj::ArrayPtr<kj::byte> space = reader.space();
    const std::size_t count = std::min(space.size(), bytes.size());
    std::memcpy(space.begin(), bytes.data(), count);
    reader.filled(count);
    return count;
  };
  std::string_view stream = large;
  give(small);
  EXPECT_NE(reader.next().get(), nullptr);
  EXPECT_TRUE(asked.empty()) << "a small message needs nobody's leave";
  stream.remove_prefix(give(stream));
  EXPECT_EQ(reader.next().get(), nullptr);
  EXPECT_TRUE(reader.isHeldBack());
  EXPECT_EQ(asked, std::vector{large.size()});

  memory = std::make_shared<int>();
  EXPECT_EQ(reader.next().get(), nullptr);
  EXPECT_FALSE(reader.isHeldBack());
  while (!stream.empty()) stream.remove_prefix(give(stream));
  {
    auto message = reader.next();
    ASSERT_NE(message.get(), nullptr);
    EXPECT_EQ(message->getRoot<PropertyValue>().getText().size(), 100'000u);
    EXPECT_EQ(memory.use_count(), 2);
  }
  EXPECT_EQ(memory.use_count(), 1);
  EXPECT_EQ(asked.size(), 2u);
}

}  // namespace
}  // namespace corvid::wire
