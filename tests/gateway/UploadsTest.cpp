#include <fmt/format.h>

#include <algorithm>
#include <filesystem>

#include "gateway/Limits.h"
#include "tests/gateway/GatewayFixture.h"
#include "tools/Gzip.h"

namespace corvid::fleet {
namespace {

namespace fs = std::filesystem;

constexpr const char* uploadPath =
    "/v1/uploads?uuid=ea5af&sequence=44&description=Parley%20log&filename=call%20log.txt.gz&raw=true";

class UploadsTest : public GatewayTest {
 protected:
  std::optional<Got> upload(std::string_view body, std::string_view to = uploadPath) {
    return post(port, to, body,
                {"Content-Type: application/octet-stream", "Content-Encoding: gzip"});
  }
  // Of all files below the folder that end so.
  std::vector<std::string> files(std::string_view ending) const {
    std::vector<std::string> found;
    for (const auto& entry : fs::recursive_directory_iterator(options.uploads))
      if (entry.is_regular_file() && entry.path().string().ends_with(ending))
        found.push_back(entry.path().string());
    std::ranges::sort(found);
    return found;
  }
  void expectRefused(const std::optional<Got>& got, int status) {
    ASSERT_TRUE(got);
    EXPECT_EQ(got->status, status) << got->body;
    // A device would remove the file.
    EXPECT_EQ(got->body.find("success"), std::string::npos);
    EXPECT_TRUE(waitUntil([&] { return files("").empty(); })) << "something was left behind";
  }
};

TEST_F(UploadsTest, AFileIsStoredAsItCameWithItsDescription) {
  start();
  const std::string packed = gzip("12:00 call begins\n");
  const auto got = upload(packed);
  ASSERT_TRUE(got);
  EXPECT_EQ(got->status, 200);
  EXPECT_EQ(got->body, "{\"success\":true}\n");
  EXPECT_EQ(got->headers.at("content-type"), "application/json");
  ASSERT_EQ(files(".gz").size(), 1u);
  EXPECT_EQ(contentOf(files(".gz")[0]), packed);
  ASSERT_EQ(files(".json").size(), 1u);
  EXPECT_TRUE(contentOf(files(".json")[0])
                  .starts_with(fmt::format(
                      R"({{"uuid":"ea5af","sequence":"44","filename":"call log.txt.gz",)"
                      R"("description":"Parley log","sent":{},"unpacked":18,"received":)",
                      packed.size())));
}

TEST_F(UploadsTest, TheSameFileAgainIsAnsweredTheSameWayAndStoredOnce) {
  start();
  const std::string packed = gzip("content");
  const auto first = upload(packed);
  const auto again = upload(packed);
  EXPECT_EQ(again->status, 200);
  EXPECT_EQ(again->body, first->body);
  EXPECT_EQ(files("").size(), 2u);
  EXPECT_EQ(upload(packed, "/v1/uploads?uuid=other&sequence=44&filename=a")->status, 200);
  EXPECT_EQ(files(".gz").size(), 2u) << "of another device";
}

TEST_F(UploadsTest, ALargeFileIsStoredByteForByte) {
  options.memory = 16 * limits::mebibyte;
  start();
  std::string noise(20 * limits::mebibyte, '\0');
  std::uint64_t state = 88172645463325252ULL;
  for (char& byte : noise) {
    state ^= state << 13;
    state ^= state >> 7;
    state ^= state << 17;
    byte = static_cast<char>(state);
  }
  const std::string packed = gzip(noise);
  EXPECT_EQ(upload(packed)->status, 200) << "though it is larger than the memory";
  EXPECT_TRUE(contentOf(files(".gz").at(0)) == packed);
}

TEST_F(UploadsTest, WhatIsNoWholeGzipFileIsRefusedAndGone) {
  start();
  const std::string packed = gzip("content");
  expectRefused(upload("content"), 400);
  expectRefused(upload(packed + "more"), 400);
  expectRefused(upload(packed.substr(0, packed.size() - 2)), 400);
  expectRefused(upload(""), 400);
  expectRefused(upload(gzip("")), 400);
}

TEST_F(UploadsTest, AFileThatUnpacksToTooMuchIsRefused) {
  start();
  expectRefused(upload(gzip(std::string(limits::fileBytes + 1, '\0'))), 413);
}

TEST_F(UploadsTest, AQueryThatDoesNotSayWhatItIsIsRefused) {
  start();
  const std::string packed = gzip("content");
  expectRefused(upload(packed, "/v1/uploads"), 400);
  expectRefused(upload(packed, "/v1/uploads?uuid=a&sequence=1"), 400);
  expectRefused(upload(packed, "/v1/uploads?uuid=success&sequence=1&uuid=success&filename=success"),
                400);
}

TEST_F(UploadsTest, NoNameLeadsOutOfTheFolder) {
  start();
  EXPECT_EQ(
      upload(gzip("content"), "/v1/uploads?uuid=..%2F..&sequence=%2F&filename=..%2F..%2Fx%00y")
          ->status,
      200);
  EXPECT_EQ(files(".gz").size(), 1u);
  EXPECT_EQ(fs::directory_iterator(folder.path())->path().filename(), "uploads");
}

TEST_F(UploadsTest, AnUploadThatBreaksOffLeavesNothing) {
  start();
  {
    Caller caller(port);
    caller.send(fmt::format("POST {} HTTP/1.1\r\nContent-Length: 900000\r\n\r\n", uploadPath));
    caller.send(gzip("content").substr(0, 10));
    caller.send(std::string(400'000, '\0'));
    ASSERT_TRUE(waitUntil([&] { return gateway->balance().received[2] == 1; }));
  }
  EXPECT_TRUE(waitUntil([&] { return gateway->balance().held == 0; }));
  EXPECT_TRUE(waitUntil([&] { return files("").empty(); }));
}

TEST_F(UploadsTest, SpaceIsLeftOnTheDisk) {
  inForce.settings.freeSpace = std::size_t{1} << 60;
  start();
  expectRefused(upload(gzip("content")), 507);
  EXPECT_EQ(settled(Rule::diskFull), 1u);
}

TEST_F(UploadsTest, AFolderThatHasGoneIsTheGatewaysFault) {
  start();
  fs::remove_all(options.uploads);
  const auto got = upload(gzip("content"));
  EXPECT_EQ(got->status, 503);
  EXPECT_EQ(got->body, "the file could not be written\n");
  fs::create_directories(options.uploads + "/incoming");
}

TEST_F(UploadsTest, WithoutAFolderThereAreNone) {
  options.uploads.clear();
  start();
  EXPECT_EQ(upload(gzip("content"))->status, 404);
}

TEST_F(UploadsTest, WhatAnEndedGatewayLeftIsRemovedAfterADay) {
  const std::string fresh = folder.write("uploads/incoming/fresh", "x");
  const std::string old = folder.write("uploads/incoming/old", "x");
  fs::last_write_time(old, fs::file_time_type::clock::now() - std::chrono::hours(25));
  start();
  EXPECT_TRUE(fs::exists(fresh));
  EXPECT_FALSE(fs::exists(old));
}

}  // namespace
}  // namespace corvid::fleet
