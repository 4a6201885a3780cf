#include <gtest/gtest.h>
#include <zlib.h>

#include <string>
#include <utility>

#include "platform/data/Deflater.h"

namespace corvid {
namespace {

std::string deflated(Deflater& deflater, DeflateFormat format, std::string_view input) {
  EXPECT_EQ(deflater.begin(format), Z_OK);
  std::string output(deflater.bound(input.size()), '\0');
  std::size_t produced = 0;
  EXPECT_EQ(deflater.finish(input, output.data(), output.size(), produced), Z_STREAM_END);
  deflater.end();
  output.resize(produced);
  return output;
}

// What zlib's own inflate makes of it, with the wrapping found out by itself.
std::string inflated(const std::string& compressed) {
  z_stream stream{};
  EXPECT_EQ(inflateInit2(&stream, MAX_WBITS + 32), Z_OK);
  std::string output(1 << 20, '\0');
  stream.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(compressed.data()));
  stream.avail_in = static_cast<uInt>(compressed.size());
  stream.next_out = reinterpret_cast<Bytef*>(output.data());
  stream.avail_out = static_cast<uInt>(output.size());
  EXPECT_EQ(inflate(&stream, Z_FINISH), Z_STREAM_END);
  EXPECT_EQ(stream.avail_in, 0u);
  output.resize(stream.total_out);
  inflateEnd(&stream);
  return output;
}

TEST(Deflater, GzipStreamsStartWithTheirMagicAndInflateToTheInput) {
  Deflater deflater;
  const std::string stream = deflated(deflater, DeflateFormat::gzip, "x");
  EXPECT_EQ(stream.substr(0, 2), "\x1f\x8b");
  EXPECT_EQ(inflated(stream), "x");
}

TEST(Deflater, ZlibStreamsStartWithTheirHeaderAndInflateToTheInput) {
  Deflater deflater;
  const std::string stream = deflated(deflater, DeflateFormat::zlib, "some text, some text");
  EXPECT_EQ(stream[0], '\x78');
  EXPECT_EQ(inflated(stream), "some text, some text");
}

TEST(Deflater, StreamsAreThoseOfTheDefaultLevelAndStrategyAndMemoryLevelEight) {
  // Long and varied enough that any other setting gives other bytes.
  std::string input;
  unsigned state = 1;
  while (input.size() < 200'000) {
    state = state * 1664525u + 1013904223u;
    input += std::to_string(state % 5000) + (state >> 30 ? " " : "some words between ");
  }
  for (const auto& [format, windowBits] :
       {std::pair{DeflateFormat::gzip, 31}, {DeflateFormat::zlib, 15}}) {
    z_stream stream{};
    ASSERT_EQ(deflateInit2(&stream, -1, 8, windowBits, 8, 0), Z_OK);
    std::string expected(deflateBound(&stream, static_cast<uLong>(input.size())), '\0');
    stream.next_in = reinterpret_cast<Bytef*>(input.data());
    stream.avail_in = static_cast<uInt>(input.size());
    stream.next_out = reinterpret_cast<Bytef*>(expected.data());
    stream.avail_out = static_cast<uInt>(expected.size());
    ASSERT_EQ(deflate(&stream, Z_FINISH), Z_STREAM_END);
    expected.resize(stream.total_out);
    deflateEnd(&stream);
    Deflater deflater;
    EXPECT_TRUE(deflated(deflater, format, input) == expected) << windowBits;
  }
}

TEST(Deflater, LaterStreamsAreIndependentOfEarlierOnes) {
  Deflater deflater;
  const std::string first = deflated(deflater, DeflateFormat::gzip, "an event, an event");
  deflated(deflater, DeflateFormat::gzip, std::string(100'000, 'y'));
  deflated(deflater, DeflateFormat::zlib, "other wrapping");
  EXPECT_EQ(deflated(deflater, DeflateFormat::gzip, "an event, an event"), first);
}

TEST(Deflater, AStreamLeftUnfinishedDoesNotSpoilTheNext) {
  Deflater deflater;
  ASSERT_EQ(deflater.begin(DeflateFormat::gzip), Z_OK);
  char room[4];
  std::size_t produced = 0;
  EXPECT_EQ(deflater.finish("abandoned", room, sizeof room, produced), Z_OK);
  deflater.end();
  EXPECT_EQ(inflated(deflated(deflater, DeflateFormat::gzip, "whole")), "whole");
}

TEST(Deflater, ProgressWithoutRoomIsZeroAndThenABufferError) {
  Deflater deflater;
  ASSERT_EQ(deflater.begin(DeflateFormat::gzip), Z_OK);
  const std::string input(1000, 'z');
  std::string output(12, '\0');
  std::size_t produced = 0;
  EXPECT_EQ(deflater.finish(input, output.data(), output.size(), produced), Z_OK);
  EXPECT_EQ(produced, output.size());
  EXPECT_EQ(deflater.finish(input, output.data() + produced, 0, produced), Z_BUF_ERROR);
  EXPECT_EQ(deflater.message(), "buffer error");
}

TEST(Deflater, TheInputIsTakenOnceHoweverManyCallsItTakes) {
  Deflater deflater;
  ASSERT_EQ(deflater.begin(DeflateFormat::zlib), Z_OK);
  const std::string input = "one two three four five six seven eight nine ten";
  std::string output(deflater.bound(input.size()), '\0');
  std::size_t produced = 0;
  int result = Z_OK;
  for (std::size_t room = 5; result == Z_OK && produced + room <= output.size(); room = 5)
    result = deflater.finish(input, output.data() + produced, room, produced);
  EXPECT_EQ(result, Z_STREAM_END);
  output.resize(produced);
  EXPECT_EQ(inflated(output), input);
}

TEST(Deflater, WithoutAZlibMessageTheMessageIsNull) { EXPECT_EQ(Deflater().message(), "(null)"); }

TEST(Deflater, BoundIsEnoughForInputThatDoesNotCompress) {
  Deflater deflater;
  std::string noise;
  unsigned state = 12345;
  for (int i = 0; i < 50'000; ++i) {
    state = state * 1664525u + 1013904223u;
    noise.push_back(static_cast<char>(state >> 24));
  }
  EXPECT_EQ(inflated(deflated(deflater, DeflateFormat::gzip, noise)), noise);
}

}  // namespace
}  // namespace corvid
