#include <gtest/gtest.h>
#include <zlib.h>

#include <algorithm>
#include <thread>
#include <vector>

#include "config/Gzip.h"
#include "platform/data/Deflater.h"
#include "tests/fakes/CapturedLog.h"

namespace corvid {
namespace {

constexpr int zlibWindow = 15;
constexpr int gzipWindow = 31;

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

// Gives scripted results and notes what it was asked for.
class ScriptedDeflater final : public Deflater {
 public:
  struct Step {
    int result;
    std::size_t writes;  // bytes that this step produces
  };
  struct Call {
    const char* output;
    std::size_t room;
  };

  int begin(DeflateFormat format) override {
    formats.push_back(format);
    return beginResult;
  }
  std::size_t bound(std::size_t) override { return boundResult; }
  int finish(std::string_view, char* output, std::size_t room, std::size_t& produced) override {
    calls.push_back({output, room});
    const Step step = steps.at(calls.size() - 1);
    std::fill_n(output, step.writes, static_cast<char>('0' + calls.size()));
    _produced += step.writes;
    produced = _produced;
    return step.result;
  }
  void end() override { ++ended; }
  std::string message() const override { return text; }

  int beginResult = 0;
  std::size_t boundResult = 10;
  std::vector<Step> steps;
  std::string text = "(null)";
  std::vector<DeflateFormat> formats;
  std::vector<Call> calls;
  int ended = 0;

 private:
  std::size_t _produced = 0;
};

struct Gzip : testing::Test {
  CapturedLog log;
};

TEST_F(Gzip, OneByteBecomesAGzipStreamOfThatByte) {
  const auto output = gzipDeflate("x");
  ASSERT_TRUE(output);
  EXPECT_EQ(output->substr(0, 2), "\x1f\x8b");
  EXPECT_EQ(inflated(*output, gzipWindow), "x");
}

TEST_F(Gzip, WithoutGzipTheStreamHasAZlibHeader) {
  const auto output = compressDataWithZlibOrGzip(false, "hello");
  ASSERT_TRUE(output);
  EXPECT_EQ(output->front(), '\x78');
  EXPECT_EQ(inflated(*output, zlibWindow), "hello");
}

TEST_F(Gzip, GzipDeflateIsTheGzipForm) {
  EXPECT_EQ(gzipDeflate("hello"), compressDataWithZlibOrGzip(true, "hello"));
}

TEST_F(Gzip, CarriesEveryByteOfLargeInputs) {
  for (const std::string& input : {noise(1'000'000), std::string(3'000'000, 'a')}) {
    const auto output = gzipDeflate(input);
    ASSERT_TRUE(output);
    EXPECT_EQ(inflated(*output, gzipWindow), input);
  }
}

TEST_F(Gzip, AReusedStreamLeavesNoTraceOfItsLastUse) {
  const auto first = gzipDeflate("the first body");
  ASSERT_TRUE(compressDataWithZlibOrGzip(false, "a zlib stream in between"));
  ASSERT_TRUE(gzipDeflate(noise(100'000)));
  EXPECT_EQ(gzipDeflate("the first body"), first);
}

TEST_F(Gzip, SeveralThreadsCompressAtOnce) {
  std::vector<std::thread> threads;
  std::vector<int> wrong(4);
  for (std::size_t thread = 0; thread < wrong.size(); ++thread)
    threads.emplace_back([&wrong, thread] {
      const std::string input = noise(1000 * (thread + 1));
      for (int i = 0; i < 50; ++i) {
        const auto output = gzipDeflate(input);
        wrong[thread] += !output || inflated(*output, gzipWindow, 1 << 14) != input;
      }
    });
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(wrong, std::vector<int>(4));
}

TEST_F(Gzip, LogsBothLengths) {
  const auto output = gzipDeflate(std::string(5000, 'a'));
  ASSERT_TRUE(output);
  const auto lines = log.lines();
  ASSERT_EQ(lines.size(), 1u);
  EXPECT_EQ(lines[0].first, LogLevel::debug);
  EXPECT_EQ(
      lines[0].second,
      fmt::format("compressDataWithZlibOrGzip: Compressed file from 5000 to {}", output->size()));
}

TEST_F(Gzip, RefusesEmptyInputWithOneErrorLine) {
  for (const bool gzip : {true, false}) {
    log.clear();
    EXPECT_FALSE(compressDataWithZlibOrGzip(gzip, ""));
    EXPECT_EQ(log.lines().size(), 1u);
    EXPECT_TRUE(
        log.has(LogLevel::error, "compressDataWithZlibOrGzip: Cannot compress empty DataBuffer"));
  }
}

TEST_F(Gzip, EmptyInputStartsNoStream) {
  ScriptedDeflater deflater;
  EXPECT_FALSE(compressDataWithZlibOrGzip(true, "", deflater));
  EXPECT_TRUE(deflater.formats.empty());
}

TEST_F(Gzip, TheFlagChoosesTheFormat) {
  ScriptedDeflater deflater;
  deflater.steps = {{1, 1}, {1, 1}};
  compressDataWithZlibOrGzip(true, "x", deflater);
  compressDataWithZlibOrGzip(false, "x", deflater);
  EXPECT_EQ(deflater.formats, (std::vector{DeflateFormat::gzip, DeflateFormat::zlib}));
}

TEST_F(Gzip, InitialisationFailuresAreTold) {
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
    ScriptedDeflater deflater;
    deflater.beginResult = code;
    deflater.text = "why";
    EXPECT_FALSE(compressDataWithZlibOrGzip(true, "x", deflater)) << code;
    EXPECT_TRUE(deflater.calls.empty()) << code;
    EXPECT_EQ(log.lines().size(), 1u) << code;
    EXPECT_TRUE(log.has(
        LogLevel::error,
        fmt::format("compressDataWithZlibOrGzip: deflateInit2() Error: \"{}\" Message: \"why\"",
                    text)))
        << code;
  }
}

TEST_F(Gzip, CompressionFailuresAreToldAndEndTheStream) {
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
    ScriptedDeflater deflater;
    deflater.steps = {{code, 3}};
    EXPECT_FALSE(compressDataWithZlibOrGzip(true, "x", deflater)) << code;
    EXPECT_EQ(deflater.ended, 1) << code;
    EXPECT_EQ(log.lines().size(), 1u) << code;
    EXPECT_TRUE(log.has(LogLevel::error,
                        fmt::format("compressDataWithZlibOrGzip: zlib error while attempting "
                                    "compression: \"{}\" Message: \"(null)\"",
                                    text)))
        << code;
  }
}

TEST_F(Gzip, GoesOnBehindWhatWasProduced) {
  ScriptedDeflater deflater;
  deflater.steps = {{0, 4}, {0, 3}, {1, 1}};
  EXPECT_EQ(compressDataWithZlibOrGzip(true, "x", deflater), "11112223");
  ASSERT_EQ(deflater.calls.size(), 3u);
  EXPECT_EQ(deflater.calls[0].room, 10u);
  EXPECT_EQ(deflater.calls[1].output, deflater.calls[0].output + 4);
  EXPECT_EQ(deflater.calls[1].room, 6u);
  EXPECT_EQ(deflater.calls[2].output, deflater.calls[0].output + 7);
  EXPECT_EQ(deflater.calls[2].room, 3u);
  EXPECT_EQ(deflater.ended, 1);
}

TEST_F(Gzip, NeverEnlargesTheBuffer) {
  ScriptedDeflater deflater;
  deflater.steps = {{0, 10}, {-5, 0}};
  EXPECT_FALSE(compressDataWithZlibOrGzip(true, "x", deflater));
  ASSERT_EQ(deflater.calls.size(), 2u);
  EXPECT_EQ(deflater.calls[1].room, 0u);
  EXPECT_EQ(log.texts(LogLevel::error).size(), 1u);
}

TEST_F(Gzip, TheResultIsTheOneAllocationOfTheWorstCase) {
  ScriptedDeflater deflater;
  deflater.boundResult = 5000;
  deflater.steps = {{1, 40}};
  const auto output = compressDataWithZlibOrGzip(true, "x", deflater);
  ASSERT_TRUE(output);
  EXPECT_EQ(output->size(), 40u);
  EXPECT_GE(output->capacity(), 5000u);
}

}  // namespace
}  // namespace corvid
