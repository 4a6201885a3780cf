// Clients that upload as much as the daemon lets them.
#include <fcntl.h>
#include <fmt/format.h>
#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>
#include <string>
#include <thread>

#include "protocol/Limits.h"
#include "tests/attack/AttackFixture.h"
#include "tests/support/Waiting.h"
#include "tools/lab/HTTPServer.h"

namespace corvid {
namespace {

using std::chrono::milliseconds;

class UploadShares : public AttackFixture {
 protected:
  void SetUp() override {
    AttackFixture::SetUp();
    const Dictionary server{{"post_url", fmt::format("https://localhost:{}/", _server.port())}};
    publish("folio", {{"version", "7"},
                      {"refresh_cycle", 3600},
                      {"release", Dictionary{{"uploadServer", server}}}});
    // All holes: as long as the largest, and soon read and compressed.
    _file = _root.write("files/largest", "");
    std::filesystem::resize_file(_file, limits::uploadBytes);
  }

  std::string _file;
  const lab::TLSIdentity _identity{_lab.root().tlsFolder()};
  // Takes everything and confirms nothing.
  lab::HTTPServer _server{[](const lab::Request&) { return lab::Answer{}; },
                          lab::HTTPServer::Options{_identity.server()}};
};

TEST_F(UploadShares, WhatOneUserUploadsLeavesAnotherRoomForTheLargestFile) {
  constexpr const char* refusal = "bytes are too many beside what is being uploaded already";
  for (int i = 0; i < 6; ++i)
    start(attacker, [this](WireClient& client) {
      configure(client, uploadClient);
      const Descriptor file(open(_file.c_str(), O_RDONLY | O_CLOEXEC));
      for (;;)
        if (!upload(client, file.get())) std::this_thread::sleep_for(milliseconds(20));
    });
  ASSERT_TRUE(waitUntil([&] { return timesLogged(refusal) > 0; })) << "the share is not full";
  TestClient victim(_root.path(), std::chrono::seconds(60));
  ASSERT_EQ(victim.configure({.clientType = uploadClient}).text(), "uploadServer");
  const std::string small = _root.write("files/small", "content");
  for (int i = 0; i < 20; ++i) {
    EXPECT_EQ(victim.upload(small).text(), "accepted");
    std::this_thread::sleep_for(milliseconds(50));
  }
  EXPECT_EQ(victim.upload(_file).text(), "accepted");
}

TEST_F(UploadShares, WhatDoesNotGetSmallerIsNotKeptInMemory) {
  const std::string path = _root.write("files/noise", noise(48 * mebibyte));
  together(3, [&](std::size_t) {
    const auto client = wireClient();
    configure(*client, uploadClient);
    const Descriptor file(open(path.c_str(), O_RDONLY | O_CLOEXEC));
    EXPECT_TRUE(upload(*client, file.get()));
  });
  EXPECT_EQ(_server.requestsAnswered(), 3u);
  expectPeakBelow(48 * mebibyte);
  EXPECT_EQ(std::distance(std::filesystem::directory_iterator(_root.path("var/lib/corvidd")), {}),
            2)
      << "settings and logs";
}

}  // namespace
}  // namespace corvid
