// The client library's own encoding of messages, against Cap'n Proto's.
#include <capnp/message.h>
#include <capnp/serialize.h>
#include <gtest/gtest.h>

#include <cstring>
#include <limits>
#include <random>
#include <string>

#include "client/wire/Calls.h"
#include "client/wire/MessageBuilder.h"
#include "client/wire/MessageReader.h"
#include "client/wire/Values.h"
#include "protocol/Limits.h"
#include "protocol/corvid.capnp.h"
#include "protocol/wire/ValueCodec.h"

namespace corvid {
namespace {

namespace ours = library::wire;

Dictionary everything() {
  Dictionary all{{"null", Value()},
                 {"yes", true},
                 {"no", false},
                 {"least", std::numeric_limits<std::int64_t>::min()},
                 {"most", std::numeric_limits<std::int64_t>::max()},
                 {"real", -0.1},
                 {"date", Date{1700000000.25}},
                 {"text", "gr\xc3\xbc\xc3\x9f"},
                 {"zero", std::string("a\0b", 3)},
                 {"empty", ""},
                 {"data", Data{std::string("\0\xff", 2)}},
                 {"no data", Data{}},
                 {"no list", Array{}},
                 {"no dictionary", Dictionary{}},
                 {"", "without a key"}};
  Value nested = 1;

  for (int i = 0; i < 14; ++i) nested = Dictionary{{"down", Array{nested, i}}};
  all.set("nested", nested);
  return all;
}

// A message with one dictionary, of the schema's shape.
constexpr ours::Size deliveryShape{2, 2};

std::string written(const Dictionary& dictionary) {
  ours::MessageBuilder message;
  auto root = message.initRoot(deliveryShape);
  root.set(ours::Delivery::timestamp, 2.5);
  root.set(ours::Delivery::category, std::uint16_t{65535});
  root.set(ours::Delivery::type, std::uint16_t{2});
  ours::encode(dictionary, root, ours::Delivery::message);
  return std::string(message.finished());
}

kj::Array<capnp::word> wordsOf(const std::string& bytes) {
  auto words = kj::heapArray<capnp::word>(bytes.size() / sizeof(capnp::word));
  std::memcpy(words.begin(), bytes.data(), bytes.size());
  return words;
}

TEST(Messages, ThatTheLibraryWritesAreReadByCapnProto) {
  const auto words = wordsOf(written(everything()));
  capnp::FlatArrayMessageReader reader(words);
  const auto delivery = reader.getRoot<wire::Delivery>();
  EXPECT_EQ(delivery.getTimestamp(), 2.5);
  EXPECT_EQ(delivery.getCategory(), 65535);
  EXPECT_EQ(delivery.getType(), 2);
  EXPECT_FALSE(delivery.hasPayload());
  EXPECT_EQ(wire::ValueDecoder().dictionary(delivery.getMessage()), everything());
}

// In as many segments as it takes, so that every kind of pointer occurs.
std::string writtenByCapnProto(const Dictionary& dictionary, capnp::uint firstSegment) {
  capnp::MallocMessageBuilder message(firstSegment, capnp::AllocationStrategy::FIXED_SIZE);
  auto delivery = message.initRoot<wire::Delivery>();
  delivery.setTimestamp(2.5);
  delivery.setType(7);
  wire::encode(dictionary, [&](auto size) { return delivery.initMessage(size); });
  const auto words = capnp::messageToFlatArray(message);
  const auto bytes = words.asBytes();
  return {reinterpret_cast<const char*>(bytes.begin()), bytes.size()};
}

std::optional<Dictionary> read(const std::string& bytes) {
  const auto size = ours::MessageReader::sizeOf(bytes, limits::messageBytes);
  if (!size || *size != bytes.size()) return std::nullopt;
  const ours::MessageReader message(bytes);
  return ours::ValueDecoder().dictionary(message.root(), ours::Delivery::message);
}

TEST(Messages, ThatCapnProtoWritesAreReadByTheLibrary) {
  for (const capnp::uint words : {1u, 2u, 3u, 5u, 8u, 13u, 64u, 1024u}) {
    const std::string bytes = writtenByCapnProto(everything(), words);
    EXPECT_EQ(read(bytes), everything()) << words;
    const ours::MessageReader message(bytes);
    EXPECT_EQ(message.root().get(ours::Delivery::timestamp), 2.5);
    EXPECT_EQ(message.root().get(ours::Delivery::type), 7);
    EXPECT_EQ(message.root().get(ours::Delivery::category), 0);
    EXPECT_FALSE(message.root().has(ours::Delivery::payload));
  }
}

// In one segment, with nothing in it but what they need.
std::string deliveriesOf(const std::optional<Dictionary>& payload, capnp::uint count) {
  capnp::MallocMessageBuilder message(1u << 16);
  auto list =
      message.initRoot<wire::ClientSessionReply::SendMessagesToClientParams>().initDeliveries(
          count);
  for (auto delivery : list)
    wire::encode(payload, [&](auto size) { return delivery.initPayload(size); });
  const auto words = capnp::messageToFlatArray(message);
  const auto bytes = words.asBytes();
  return {reinterpret_cast<const char*>(bytes.begin()), bytes.size()};
}

TEST(Messages, DeliveriesOfAnyNumberAndSizeAreRead) {
  for (const std::optional<Dictionary>& payload : {std::optional<Dictionary>(),
                                                   {Dictionary()},
                                                   {Dictionary{{"", Value()}}},
                                                   {Dictionary{{"number", 1}}},
                                                   {Dictionary{{"list", Array{Array{Array{1}}}}}}})
    for (const capnp::uint count : {0u, 1u, 2u, 3u, 10u, 29u, 100u, 1000u}) {
      const std::string bytes = deliveriesOf(payload, count);
      const ours::MessageReader reader(bytes);
      const auto deliveries = ours::decodeDeliveries(reader.root());
      EXPECT_EQ(deliveries.size(), count);
      for (const library::Delivery& delivery : deliveries) EXPECT_EQ(delivery.payload, payload);
    }
}

TEST(Messages, FieldsThatTheSenderDidNotKnowAreZeroAndAbsent) {
  ours::MessageBuilder message;
  message.initRoot({0, 0});
  const std::string bytes(message.finished());
  const ours::MessageReader reader(bytes);
  EXPECT_EQ(reader.root().get(ours::Delivery::timestamp), 0);
  EXPECT_FALSE(reader.root().get(ours::ClientSession::UploadR::answered));
  EXPECT_FALSE(reader.root().has(ours::Delivery::message));
  EXPECT_EQ(reader.root().listAt(ours::Delivery::message).size(), 0u);
  EXPECT_EQ(reader.root().text(ours::Error::domain), "");
}

TEST(Messages, AMessageIsWaitedForUntilItIsWhole) {
  const std::string bytes = writtenByCapnProto(everything(), 3);
  for (std::size_t length = 0; length < bytes.size(); ++length) {
    const auto size = ours::MessageReader::sizeOf(bytes.substr(0, length), limits::messageBytes);
    EXPECT_TRUE(!size || *size == bytes.size()) << length;
  }
  EXPECT_THROW(ours::MessageReader::sizeOf(bytes, bytes.size() - 1), ours::BadMessage);
  EXPECT_THROW(ours::MessageReader::sizeOf(std::string(8, '\xff'), limits::messageBytes),
               ours::BadMessage);
}

// Whatever stands in a message, it is read or refused.
TEST(Messages, NoBytesLeadTheReaderOutOfTheMessage) {
  std::mt19937 random(14);
  std::size_t refused = 0;
  std::size_t understood = 0;
  for (const capnp::uint words : {1u, 4u, 1024u}) {
    const std::string whole = writtenByCapnProto(everything(), words);
    for (int i = 0; i < 4000; ++i) {
      std::string bytes = whole;
      const int changes = 1 + static_cast<int>(random() % 3);
      for (int n = 0; n < changes; ++n)
        bytes[random() % bytes.size()] = static_cast<char>(random());
      try {
        const auto size = ours::MessageReader::sizeOf(bytes, bytes.size());
        if (!size || *size > bytes.size()) continue;
        const ours::MessageReader message(std::string_view(bytes).substr(0, *size));
        ours::ValueDecoder().dictionary(message.root(), ours::Delivery::message);
        ++understood;
      } catch (const ours::BadMessage&) {
        ++refused;
      }
    }
  }
  EXPECT_GT(refused, 1000u);
  EXPECT_GT(understood, 1000u);
}

// A list of `count` texts that are all the same words: what a message of `length` and a little says
// is count times as long.
std::string oneTextOftenReferred(std::uint32_t count, std::uint32_t length) {
  ours::MessageBuilder builder;
  auto root = builder.initRoot(deliveryShape);
  Array texts(count, "");
  texts[0] = std::string(length, 'x');
  ours::encode(Dictionary{{"texts", texts}}, root, ours::Delivery::message);
  std::string bytes(builder.finished());
  // Every text's pointer leads to the first one's bytes.
  constexpr std::uint64_t bytesEach = 2;
  const auto pointerTo = [&](std::size_t at, std::size_t words, std::uint64_t size) {
    const std::uint64_t offset = (words - at - 1) & 0x3fffffff;
    return 1 | offset << 2 | bytesEach << 32 | size << 35;
  };
  const auto wordAt = [&](std::size_t at) {
    return loadLittle<std::uint64_t>(bytes.data() + at * 8);
  };
  const auto targetOf = [&](std::size_t at) {
    return at + 1 + (static_cast<std::uint32_t>(wordAt(at)) >> 2);
  };
  const std::uint64_t first = 1 | bytesEach << 32 | std::uint64_t{length + 1} << 35;
  const std::uint64_t rest = 1 | bytesEach << 32 | std::uint64_t{1} << 35;
  std::size_t text = 0;
  for (std::size_t at = 1; at < bytes.size() / 8; ++at) {
    const std::uint64_t kind = wordAt(at) & 0xffffffff00000003;
    if (kind == first) text = targetOf(at);
    if (kind == rest && text != 0) {
      storeLittle(&bytes[at * 8], pointerTo(at, text, length + 1));
    }
  }
  return bytes;
}

TEST(Messages, WordsThatAreReferredToOverAndOverAreNotReadThatOften) {
  EXPECT_EQ(read(oneTextOftenReferred(3, 4000)),
            (Dictionary{{"texts", Array(3, std::string(4000, 'x'))}}));
  EXPECT_THROW(read(oneTextOftenReferred(50, 4000)), ours::BadMessage);
}

TEST(Messages, ValuesPastTheLimitsAreRefused) {
  Value deep = 1;
  for (std::size_t i = 0; i < limits::valueNesting - 1; ++i) deep = Array{deep};
  EXPECT_TRUE(read(written({{"deep", deep}})));
  EXPECT_THROW(read(written({{"deep", Array{deep}}})), ours::BadMessage);
  EXPECT_TRUE(read(written({{"many", Array(limits::valuesPerMessage - 1)}})));
  EXPECT_THROW(read(written({{"many", Array(limits::valuesPerMessage)}})), ours::BadMessage);
  EXPECT_THROW(read(written({{"text", "\xff"}})), ours::BadMessage);
  EXPECT_THROW(read(written({{"date", Date{1e308 * 10}}})), ours::BadMessage);
}

}  // namespace
}  // namespace corvid
