// Clients that want the daemon, in its sandbox, to read, send or remove what they could not.
#include <fcntl.h>
#include <fmt/format.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "base/Reading.h"
#include "protocol/Limits.h"
#include "tests/e2e/LabFixture.h"
#include "tests/e2e/Limits.h"
#include "tests/rpc/TestGrant.h"
#include "tests/rpc/WireClient.h"
#include "tests/support/ToolProcess.h"
#include "tests/support/Waiting.h"

namespace corvid {
namespace {

namespace fs = std::filesystem;

constexpr int uploadingClient = 16;

class UploadAttacks : public LabFixture {
 protected:
  void SetUp() override {
    startDaemon();
    secret = write("secret", "precious");
    ASSERT_EQ(chmod(secret.c_str(), 0), 0);
  }
  // Whatever was tried: nothing has left, nothing is gone, and the daemon serves.
  void TearDown() override {
    EXPECT_EQ(uploads(), rightful);
    EXPECT_TRUE(fs::exists(secret));
    TestClient honest(_root.path());
    EXPECT_EQ(honest.configure({.clientType = uploadingClient}).text(), "httpPost,uploadServer");
    EXPECT_EQ(honest.upload(write("honest")).text(), "accepted");
    EXPECT_EQ(uploads(), rightful + 1);
    EXPECT_FALSE(fs::exists(_root.path("files/honest")));
    LabFixture::TearDown();
  }

  std::string write(const std::string& name, const std::string& content = "content") const {
    _root.write("files/" + name, content);
    return _root.path("files/" + name);
  }
  std::size_t uploads() {
    std::size_t count = 0;
    for (const Dictionary& entry : received())
      count += *stringAt(entry, "server") == "upload" ? 1 : 0;
    return count;
  }
  std::string socketPath() const { return _root.path("run/corvidd/com.halcyon.corvidd"); }

  // A client without the client library, ready to upload.
  static void configure(WireClient& client) {
    auto info = client.session.setSessionInfoRequest();
    fill(info.initSessionInfo(2), {{"ClientType", uploadingClient}, {"SessionID", 66}});
    info.send().wait(client.scope);
    client.session.startConfigRequest().send().wait(client.scope);
  }
  static bool upload(WireClient& client, const std::string& url,
                     std::optional<wire::FileGrant::Client> grant, std::string_view token = {}) {
    auto request = client.session.uploadFileRequest();
    request.setReplyWanted(true);
    request.setFileURL(url);
    request.setExtensionToken({reinterpret_cast<const kj::byte*>(token.data()), token.size()});
    if (grant) request.setFile(*std::move(grant));
    auto response = request.send().wait(client.scope);
    return response.getAnswered() && response.getSuccess();
  }
  bool uploadDescriptor(Descriptor descriptor, const std::string& url = "file:///x") {
    EXPECT_TRUE(descriptor);
    WireClient client(socketPath());
    configure(client);
    return upload(client, url, kj::heap<TestGrant>(descriptor.get(), removals));
  }
  static Descriptor opened(const std::string& path, int flags) {
    return Descriptor(::open(path.c_str(), flags | O_CLOEXEC));
  }

  std::string secret;
  int removals = 0;
  std::size_t rightful = 0;  // uploads of the test that are in order
};

// ---- Through the client library

TEST_F(UploadAttacks, WhatIsNoRegularFileIsRefused) {
  fs::create_symlink(secret, _root.path("files/link"));
  fs::create_symlink("/etc/passwd", _root.path("files/passwd"));
  ASSERT_EQ(mkfifo(_root.path("files/pipe").c_str(), 0600), 0);
  TestClient client(_root.path());
  ASSERT_EQ(client.configure({.clientType = uploadingClient}).text(), "httpPost,uploadServer");
  for (const std::string& path :
       {_root.path("files/link"), _root.path("files/passwd"), _root.path("files/pipe"),
        _root.path("files"), _root.path("files/../files/link"), _root.path("files/missing"),
        std::string("/dev/zero"), std::string("/dev/null"), std::string("/proc/self/environ"),
        std::string("/proc/self/mem"), std::string("/proc/self/fd/0"), std::string("/")})
    EXPECT_EQ(client.upload(path).text(), "refused") << path;
  EXPECT_EQ(timesLogged("UploadBackend(uploadFileAtPath): Only upload a regular file."), 12u);
}

// Another user's client, where this test may make one.
TEST_F(UploadAttacks, AFileThatTheClientMayNotReadIsRefused) {
  std::string program = CORVIDCTL_PROGRAM;
  std::vector<std::string> arguments{"--root", _root.path(), "session"};
  if (getuid() == 0) {
    constexpr int nobody = 65534;
    arguments.insert(arguments.begin(), {"--reuid", std::to_string(nobody), "--clear-groups",
                                         "--bounding-set", "-all", program});
    program = "setpriv";
    ASSERT_EQ(chmod(_root.path().c_str(), 0755), 0);
    _root.write("etc/corvid/entitlements.d/stranger.plist",
                fmt::format(R"(<plist version="1.0"><dict>
<key>match</key><dict><key>user</key><integer>{}</integer></dict>
<key>entitlements</key><dict><key>com.halcyon.private.corvidd</key><true/></dict>
</dict></plist>)",
                            nobody));
  }
  // A hard link to it is the same file.
  fs::create_hard_link(secret, _root.path("files/hardlink"));
  const ToolResult result =
      runTool(program, arguments,
              fmt::format("{{\"call\":\"setSessionInfo\",\"sessionInfo\":{{\"ClientType\":16}}}}\n"
                          "{{\"call\":\"startConfig\"}}\n"
                          "{{\"call\":\"uploadFile\",\"path\":\"{0}\"}}\n"
                          "{{\"call\":\"uploadFile\",\"path\":\"{1}\"}}\n",
                          secret, _root.path("files/hardlink")));
  ASSERT_EQ(result.status, 0) << result.errors;
  const std::vector<std::string> lines = linesOf(result.output);
  ASSERT_EQ(lines.size(), 4u);
  EXPECT_EQ(lines[2], R"({"call":"uploadFile","success":false})");
  EXPECT_EQ(lines[3], R"({"call":"uploadFile","success":false})");
  EXPECT_EQ(timesLogged("UploadBackend(uploadFileAtPath): Only upload a regular file."), 2u);
}

// ---- Without it

TEST_F(UploadAttacks, ADescriptorThatDoesNotAllowReadingIsNotRead) {
  EXPECT_FALSE(uploadDescriptor(opened(secret, O_PATH), "file://" + secret));
  EXPECT_FALSE(uploadDescriptor(opened(write("log"), O_WRONLY)));
  EXPECT_EQ(timesLogged("UploadBackend(uploadFileAtPath): Input file is empty"), 2u);
  EXPECT_EQ(removals, 0);
}

TEST_F(UploadAttacks, ADescriptorOfAnythingButAFileIsRefused) {
  ASSERT_EQ(mkfifo(_root.path("files/pipe").c_str(), 0600), 0);
  int ends[2];
  ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends), 0);
  const Descriptor other(ends[1]);
  EXPECT_FALSE(uploadDescriptor(opened(_root.path("files"), O_RDONLY | O_DIRECTORY)));
  EXPECT_FALSE(uploadDescriptor(opened(_root.path("files/pipe"), O_RDONLY | O_NONBLOCK)));
  EXPECT_FALSE(uploadDescriptor(opened("/dev/zero", O_RDONLY)));
  EXPECT_FALSE(uploadDescriptor(opened("/proc/self/environ", O_RDONLY)));
  EXPECT_FALSE(uploadDescriptor(Descriptor(ends[0])));
  EXPECT_EQ(timesLogged("UploadBackend(uploadFileAtPath): Only upload a regular file."), 5u);
  EXPECT_EQ(removals, 0);
}

// The name that a client gives is a label: what it granted is read, and only that can go.
TEST_F(UploadAttacks, ANameOfAnotherFileDoesNotReachThatFile) {
  rightful = 1;
  EXPECT_TRUE(uploadDescriptor(opened(write("own", "own content"), O_RDONLY), "file://" + secret));
  EXPECT_EQ(removals, 1);  // of the client's own object
  ASSERT_TRUE(waitUntil([&] { return uploads() == 1; }));
  const auto& all = received();
  const auto upload =
      std::ranges::find_if(all, [](const auto& each) { return each.contains("file"); });
  ASSERT_NE(upload, all.end());
  EXPECT_EQ(*stringAt(*dictionaryAt(*upload, "file"), "content"), "own content");
}

TEST_F(UploadAttacks, AFilePastTheLimitIsRefusedBeforeItIsRead) {
  const std::string huge = write("huge");
  fs::resize_file(huge, limits::uploadBytes + 1);
  EXPECT_FALSE(uploadDescriptor(opened(huge, O_RDONLY)));
  EXPECT_EQ(timesLogged("UploadBackend(uploadFileAtPath): Input file has 268435457 bytes"), 1u);
  EXPECT_LT(_daemon->peakMemory(), mostMemory);
}

TEST_F(UploadAttacks, ATokenWithoutAGrantIsWorthNothing) {
  WireClient client(socketPath());
  configure(client);
  const std::string own = "file://" + _root.path("var/lib/corvidd/Preferences/com.halcyon.corvid");
  for (const std::string& url :
       {"file://" + secret, own, std::string("file:///etc/passwd"),
        std::string("file:///../../etc/passwd"), std::string("/etc/passwd"),
        std::string("file:///proc/self/environ"), std::string()})
    for (const std::string& token :
         {std::string(), std::string("forged"), std::string(32, '0'), std::string(100'000, 'x')})
      EXPECT_FALSE(upload(client, url, std::nullopt, token)) << url;
  EXPECT_EQ(timesLogged("UploadBackend(uploadFileAtPath): Only upload a regular file."), 28u);
}

TEST_F(UploadAttacks, AMessageThatBringsTooManyDescriptorsLosesItsConnection) {
  const std::size_t before = _daemon->descriptors();
  const std::string file = write("log");
  for (int i = 0; i < 20; ++i) {
    RawClient raw(socketPath());
    char byte = 0;
    iovec piece{&byte, 1};
    std::vector<char> control(CMSG_SPACE(200 * sizeof(int)));
    msghdr message{};
    message.msg_iov = &piece;
    message.msg_iovlen = 1;
    message.msg_control = control.data();
    message.msg_controllen = control.size();
    cmsghdr* const header = CMSG_FIRSTHDR(&message);
    header->cmsg_level = SOL_SOCKET;
    header->cmsg_type = SCM_RIGHTS;
    header->cmsg_len = CMSG_LEN(200 * sizeof(int));
    const Descriptor descriptor = opened(file, O_RDONLY);
    const std::vector<int> numbers(200, descriptor.get());
    std::memcpy(CMSG_DATA(header), numbers.data(), numbers.size() * sizeof(int));
    ASSERT_EQ(sendmsg(raw.socket.get(), &message, MSG_NOSIGNAL), 1);
    EXPECT_TRUE(raw.awaitClosed());
  }
  EXPECT_TRUE(waitUntil([&] { return _daemon->descriptors() <= before; }));
  EXPECT_EQ(timesLogged("broke a rule: a message with more than 1 descriptors"), 20u);
}

TEST_F(UploadAttacks, AClientThatNeverAnswersTheRemovalHoldsUpItselfOnly) {
  rightful = 1;
  const std::string file = write("log");
  class Mute final : public wire::FileGrant::Server {
   public:
    explicit Mute(int descriptor) : _descriptor(descriptor) {}
    kj::Maybe<int> getFd() override { return _descriptor; }
    kj::Promise<void> remove(RemoveContext) override { return kj::NEVER_DONE; }

   private:
    const int _descriptor;
  };
  WireClient client(socketPath());
  configure(client);
  const Descriptor descriptor = opened(file, O_RDONLY);
  auto request = client.session.uploadFileRequest();
  request.setReplyWanted(true);
  request.setFileURL("file:///x");
  request.setFile(kj::heap<Mute>(descriptor.get()));
  auto sent = request.send().eagerlyEvaluate(nullptr);
  EXPECT_TRUE(waitUntil([&] {
    client.scope.poll();
    return uploads() == 1;
  }));
  EXPECT_EQ(sendEvent(client, 1, 2), "none");
  EXPECT_FALSE(sent.poll(client.scope));
}

}  // namespace
}  // namespace corvid
