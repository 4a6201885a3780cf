#include <dlfcn.h>
#include <gtest/gtest.h>
#include <zlib.h>

#include <algorithm>
#include <atomic>
#include <barrier>
#include <optional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "platform/Compressor.h"
#include "tests/fakes/CapturedLog.h"

namespace {

// What the library is made to answer in one test, and what it was asked.
struct Script {
  struct Step {
    int result;
    unsigned writes;  // bytes that this step produces
  };
  struct Call {
    unsigned long behind;  // bytes produced so far
    unsigned room;
    unsigned inputLeft;
  };

  std::optional<int> beginResult{};
  std::optional<unsigned long> bound{};
  std::vector<Step> steps{};
  const char* message = nullptr;
  std::vector<Call> calls{};
  const Bytef* output = nullptr;
};
Script* script = nullptr;
std::barrier<>* meeting = nullptr;  // where all that compress wait for each other
std::atomic<int> initialisations = 0;
std::atomic<int> ends = 0;

template <class Function>
Function* real(const char* name) {
  return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}

}  // namespace

// These stand in front of the library's.
extern "C" {

int deflateInit2_(z_streamp stream, int level, int method, int windowBits, int memoryLevel,
                  int strategy, const char* version, int size) {
  if (script && script->beginResult) {
    stream->msg = const_cast<char*>(script->message);
    return *script->beginResult;
  }
  ++initialisations;
  return real<decltype(deflateInit2_)>("deflateInit2_")(stream, level, method, windowBits,
                                                        memoryLevel, strategy, version, size);
}

int deflateEnd(z_streamp stream) {
  ++ends;
  return real<decltype(deflateEnd)>("deflateEnd")(stream);
}

uLong deflateBound(z_streamp stream, uLong length) {
  if (script && script->bound) return *script->bound;
  return real<decltype(deflateBound)>("deflateBound")(stream, length);
}

int deflate(z_streamp stream, int flush) {
  if (meeting) meeting->arrive_and_wait();
  if (script == nullptr || script->steps.empty())
    return real<decltype(deflate)>("deflate")(stream, flush);
  EXPECT_EQ(flush, Z_FINISH);
  if (script->calls.empty()) script->output = stream->next_out;
  EXPECT_EQ(stream->next_out, script->output + stream->total_out);
  script->calls.push_back({stream->total_out, stream->avail_out, stream->avail_in});
  const Script::Step step = script->steps.at(script->calls.size() - 1);
  std::fill_n(stream->next_out, step.writes, static_cast<Bytef>('0' + script->calls.size()));
  stream->total_out += step.writes;
  ++stream->next_in;
  --stream->avail_in;
  stream->msg = const_cast<char*>(script->message);
  return step.result;
}

}  // extern "C"

namespace corvid {
namespace {

std::string inflated(std::string_view bytes, int windowBits, std::size_t room = 1 << 22) {
  z_stream stream{};
  EXPECT_EQ(inflateInit2(&stream, windowBits), Z_OK);
  std::string output(room, '\0');
  stream.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(bytes.data()));
  stream.avail_in = static_cast<uInt>(bytes.size());
  stream.next_out = reinterpret_cast<Bytef*>(output.data());
  stream.avail_out = static_cast<uInt>(output.size());
  EXPECT_EQ(inflate(&stream, Z_FINISH), Z_STREAM_END);
  EXPECT_EQ(stream.avail_in, 0u) << "bytes after the stream's end";
  output.resize(stream.total_out);
  inflateEnd(&stream);
  return output;
}

constexpr int zlibWindow = 15;
constexpr int gzipWindow = 31;

// What hardly compresses: needs nearly the whole bound.
std::string noise(std::size_t length) {
  std::string text(length, '\0');
  std::uint32_t state = 1;
  for (char& c : text) {
    state = state * 1664525 + 1013904223;
    c = static_cast<char>(state >> 24);
  }
  return text;
}

class CompressorTest : public testing::Test {
 protected:
  CompressorTest() {
    initialisations = 0;
    ends = 0;
  }
  ~CompressorTest() override { script = nullptr; }

  void play(Script next) {
    _script = std::move(next);
    script = &_script;
  }
  const std::vector<Script::Call>& calls() const { return _script.calls; }
  // Where the library was told to write.
  const char* written() const { return reinterpret_cast<const char*>(_script.output); }

  CapturedLog log;
  Compressor compressor;

 private:
  Script _script;
};

TEST_F(CompressorTest, OneByteBecomesAGzipStreamOfThatByte) {
  const auto output = compressor.gzipDeflate("x");
  ASSERT_TRUE(output);
  EXPECT_EQ(output->substr(0, 2), "\x1f\x8b");
  EXPECT_EQ(inflated(*output, gzipWindow), "x");
}

TEST_F(CompressorTest, WithoutGzipTheStreamHasAZlibHeader) {
  const auto output = compressor.compressDataWithZlibOrGzip(false, "hello");
  ASSERT_TRUE(output);
  EXPECT_EQ(output->front(), '\x78');
  EXPECT_EQ(inflated(*output, zlibWindow), "hello");
}

TEST_F(CompressorTest, GzipDeflateIsTheGzipForm) {
  EXPECT_EQ(compressor.gzipDeflate("hello"), compressor.compressDataWithZlibOrGzip(true, "hello"));
}

TEST_F(CompressorTest, StreamsAreThoseOfTheDefaultLevelAndStrategyAndMemoryLevelEight) {
  // Long and varied enough that any other setting gives other bytes.
  std::string input;
  unsigned state = 1;
  while (input.size() < 200'000) {
    state = state * 1664525u + 1013904223u;
    input += std::to_string(state % 5000) + (state >> 30 ? " " : "some words between ");
  }
  for (const int windowBits : {gzipWindow, zlibWindow}) {
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
    EXPECT_TRUE(compressor.compressDataWithZlibOrGzip(windowBits == gzipWindow, input) == expected)
        << windowBits;
  }
}

TEST_F(CompressorTest, CarriesEveryByteOfLargeInputs) {
  for (const std::string& input : {noise(1'000'000), std::string(3'000'000, 'a')}) {
    const auto output = compressor.gzipDeflate(input);
    ASSERT_TRUE(output);
    EXPECT_EQ(inflated(*output, gzipWindow), input);
  }
}

TEST_F(CompressorTest, LogsBothLengths) {
  const auto output = compressor.gzipDeflate(std::string(5000, 'a'));
  ASSERT_TRUE(output);
  const auto lines = log.lines();
  ASSERT_EQ(lines.size(), 1u);
  EXPECT_EQ(lines[0].first, LogLevel::debug);
  EXPECT_EQ(
      lines[0].second,
      fmt::format("compressDataWithZlibOrGzip: Compressed file from 5000 to {}", output->size()));
}

// ---- Sources

class SourceTest : public CompressorTest {
 protected:
  // Of a source that gives what `content` has, at most `most` bytes at a time.
  std::optional<std::string> compressed(std::size_t size, std::size_t most = ~std::size_t{0}) {
    std::string output;
    const bool isWhole = compressor.gzipDeflate(
        size,
        [this, most](std::size_t offset, std::size_t bytes) -> std::optional<std::string> {
          asked = std::max(asked, bytes);
          if (offset >= failsFrom) return std::nullopt;
          return content.substr(std::min(offset, content.size()), std::min(bytes, most));
        },
        [&](std::string_view piece) {
          given = std::max(given, piece.size());
          output += piece;
          return output.size() <= room;
        });
    return isWhole ? std::optional(output) : std::nullopt;
  }

  std::string content;
  std::size_t failsFrom = ~std::size_t{0};
  std::size_t room = ~std::size_t{0};
  std::size_t asked = 0;
  std::size_t given = 0;
};

TEST_F(SourceTest, ASourceIsCompressedWholeAndReadInPieces) {
  for (const std::string& whole : {noise(1'000'000), std::string(3'000'000, 'a'), noise(65'536)}) {
    content = whole;
    const auto output = compressed(content.size());
    ASSERT_TRUE(output);
    EXPECT_TRUE(inflated(*output, gzipWindow) == content);
    EXPECT_LE(asked, 65'536u);
    EXPECT_LE(given, 65'536u);
    EXPECT_LE(output->size(), Compressor::mostBytesFor(content.size()));
  }
}

TEST_F(SourceTest, OneThatGivesLessThanItIsAskedForGoesOn) {
  content = noise(20'000);
  EXPECT_TRUE(inflated(compressed(content.size(), 777).value_or(""), gzipWindow) == content);
}

TEST_F(SourceTest, OneThatEndsEarlyIsCompressedAsFarAsItGoes) {
  content = noise(100'000);
  EXPECT_TRUE(inflated(compressed(200'000).value_or(""), gzipWindow) == content);
}

TEST_F(SourceTest, NotMoreIsReadThanTheSize) {
  content = noise(100'000);
  EXPECT_TRUE(inflated(compressed(70'000).value_or(""), gzipWindow) == content.substr(0, 70'000));
}

TEST_F(SourceTest, ASinkThatTakesNoMoreEndsIt) {
  content = noise(500'000);
  room = 200'000;
  EXPECT_FALSE(compressed(content.size()));
  EXPECT_EQ(log.lines().size(), 0u);
  room = ~std::size_t{0};
  EXPECT_TRUE(compressed(content.size()));
}

TEST_F(SourceTest, OneThatIsEmptyOrFailsGivesNothing) {
  EXPECT_FALSE(compressed(100));
  content = noise(200'000);
  for (const std::size_t from : {0u, 65'536u, 196'608u}) {
    failsFrom = from;
    EXPECT_FALSE(compressed(content.size())) << from;
  }
  EXPECT_EQ(log.lines().size(), 0u);
}

TEST_F(SourceTest, ItsLengthsAreLogged) {
  content = noise(100'000);
  const auto output = compressed(content.size());
  EXPECT_TRUE(log.has(LogLevel::debug,
                      fmt::format("compressDataWithZlibOrGzip: Compressed file from 100000 to {}",
                                  output->size())));
}

// ---- Streams that are kept

TEST_F(CompressorTest, AKeptStreamServesTheNextBodyAndLeavesNoTraceOfItsLast) {
  const auto first = compressor.gzipDeflate("the first body");
  ASSERT_TRUE(compressor.gzipDeflate(noise(100'000)));
  EXPECT_EQ(compressor.gzipDeflate("the first body"), first);
  EXPECT_EQ(initialisations, 1);
  EXPECT_EQ(ends, 0);
}

TEST_F(CompressorTest, EachFormatHasStreamsOfItsOwn) {
  const auto first = compressor.gzipDeflate("the first body");
  ASSERT_TRUE(compressor.compressDataWithZlibOrGzip(false, "a zlib stream in between"));
  EXPECT_EQ(compressor.gzipDeflate("the first body"), first);
  EXPECT_EQ(initialisations, 2);
}

TEST_F(CompressorTest, WhatItKeepsEndsWithIt) {
  {
    Compressor other;
    ASSERT_TRUE(other.gzipDeflate("x"));
    EXPECT_EQ(ends, 0);
  }
  EXPECT_EQ(ends, 1);
}

TEST_F(CompressorTest, SharesNoStreamAndKeepsNoMoreThanItsCapacity) {
  std::barrier<> all(3);
  meeting = &all;
  {
    std::vector<std::jthread> threads;
    for (int i = 0; i < 3; ++i) threads.emplace_back([&] { compressor.gzipDeflate("x"); });
  }
  meeting = nullptr;
  EXPECT_EQ(initialisations, 3);
  EXPECT_EQ(ends, 1);
  static_assert(Compressor::capacity == 2);
}

TEST_F(CompressorTest, SeveralThreadsCompressAtOnce) {
  std::vector<std::thread> threads;
  std::vector<int> wrong(4);
  for (std::size_t thread = 0; thread < wrong.size(); ++thread)
    threads.emplace_back([&, thread] {
      const std::string input = noise(1000 * (thread + 1));
      for (int i = 0; i < 50; ++i) {
        const auto output = compressor.gzipDeflate(input);
        wrong[thread] += !output || inflated(*output, gzipWindow, 1 << 14) != input;
      }
    });
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(wrong, std::vector<int>(4));
}

// ---- Failures

TEST_F(CompressorTest, RefusesEmptyInputWithOneErrorLineAndStartsNoStream) {
  for (const bool gzip : {true, false}) {
    log.clear();
    EXPECT_FALSE(compressor.compressDataWithZlibOrGzip(gzip, ""));
    EXPECT_EQ(log.lines().size(), 1u);
    EXPECT_TRUE(
        log.has(LogLevel::error, "compressDataWithZlibOrGzip: Cannot compress empty DataBuffer"));
  }
  EXPECT_EQ(initialisations, 0);
}

TEST_F(CompressorTest, InitialisationFailuresAreTold) {
  constexpr std::string_view unknown = "Unknown error code.";
  const std::vector<std::pair<int, std::string_view>> table{
      {-6, "The version of zlib.h and the version of the library linked do not match."},
      {-5, unknown},
      {-4, "Insufficient memory."},
      {-3, unknown},
      {-2, "Invalid parameter passed in to function."},
      {-1, unknown},
      {-7, unknown},
      {2, unknown},
  };
  for (const auto& [code, text] : table) {
    log.clear();
    play({.beginResult = code, .message = "why"});
    EXPECT_FALSE(compressor.gzipDeflate("x")) << code;
    EXPECT_EQ(log.lines().size(), 1u) << code;
    EXPECT_TRUE(log.has(
        LogLevel::error,
        fmt::format("compressDataWithZlibOrGzip: deflateInit2() Error: \"{}\" Message: \"why\"",
                    text)))
        << code;
  }
  EXPECT_EQ(ends, 0) << "there was nothing to end";
}

TEST_F(CompressorTest, CompressionFailuresAreToldAndEndTheStream) {
  const std::vector<std::pair<int, std::string_view>> table{
      {-6, "The version of zlib.h and the version of the library linked do not match."},
      {-5, "Ran out of output buffer for writing compressed bytes."},
      {-4, "Memory could not be allocated for processing."},
      {-3, "The deflate data was invalid or incomplete."},
      {-2, "The stream state was inconsistent (e.g., next_in or next_out was NULL)."},
      {-1, "Error occured while reading file."},
      {-7, "Unknown error code."},
      {2, "Unknown error code."},
  };
  for (const auto& [code, text] : table) {
    log.clear();
    ends = 0;
    play({.steps = {{code, 3}}});
    EXPECT_FALSE(compressor.gzipDeflate("x")) << code;
    EXPECT_EQ(ends, 1) << code;
    EXPECT_EQ(log.lines().size(), 1u) << code;
    EXPECT_TRUE(log.has(LogLevel::error,
                        fmt::format("compressDataWithZlibOrGzip: zlib error while attempting "
                                    "compression: \"{}\" Message: \"(null)\"",
                                    text)))
        << code;
  }
}

TEST_F(CompressorTest, GoesOnBehindWhatWasProducedAndTaken) {
  play({.bound = 10, .steps = {{0, 4}, {0, 3}, {1, 1}}});
  EXPECT_EQ(compressor.gzipDeflate("input"), "11112223");
  ASSERT_EQ(calls().size(), 3u);
  for (const auto& [call, produced] : {std::pair(0u, 0u), {1u, 4u}, {2u, 7u}}) {
    EXPECT_EQ(calls()[call].behind, produced);
    EXPECT_EQ(calls()[call].room, 10 - produced);
    EXPECT_EQ(calls()[call].inputLeft, 5 - call);
  }
}

TEST_F(CompressorTest, NeverEnlargesTheBuffer) {
  play({.bound = 12});
  EXPECT_FALSE(compressor.gzipDeflate(noise(1000)));
  EXPECT_EQ(log.texts(LogLevel::error),
            std::vector<std::string>{
                "compressDataWithZlibOrGzip: zlib error while attempting compression: \"Ran out of "
                "output buffer for writing compressed bytes.\" Message: \"buffer error\""});
}

TEST_F(CompressorTest, AFailedStreamDoesNotSpoilTheNext) {
  play({.bound = 12});
  ASSERT_FALSE(compressor.gzipDeflate(noise(1000)));
  script = nullptr;
  EXPECT_EQ(inflated(compressor.gzipDeflate("whole").value_or(""), gzipWindow), "whole");
}

TEST_F(CompressorTest, TheResultIsTheOneAllocationOfTheWorstCase) {
  play({.bound = 5000, .steps = {{1, 40}}});
  const auto output = compressor.gzipDeflate("x");
  ASSERT_TRUE(output);
  EXPECT_EQ(output->size(), 40u);
  EXPECT_EQ(calls().front().room, 5000u);
  EXPECT_EQ(output->data(), written()) << "what the library wrote, where it wrote it";
}

}  // namespace
}  // namespace corvid
