#include <dlfcn.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <zlib.h>

#include <algorithm>
#include <chrono>
#include <functional>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "backends/BackendSet.h"
#include "backends/upload/UploadBackend.h"
#include "protocol/Limits.h"
#include "tests/fakes/FakeGrantedFile.h"
#include "tests/fakes/TestIdentity.h"
#include "tests/fakes/TestPlatform.h"
#include "tools/Gzip.h"

namespace {
bool compressorFails = false;
}  // namespace

// Stands in front of the library's.
extern "C" int deflate(z_streamp stream, int flush) {
  if (compressorFails) return Z_STREAM_ERROR;
  static const auto real = reinterpret_cast<decltype(&deflate)>(dlsym(RTLD_NEXT, "deflate"));
  return real(stream, flush);
}

namespace corvid {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

constexpr const char* udid = "0123456789abcdef0123456789abcdef01234567";

std::string noise(std::size_t size) {
  std::string noise;
  for (std::uint32_t i = 1; noise.size() < size; i = i * 1664525 + 1013904223)
    noise.push_back(static_cast<char>(i >> 24));
  return noise;
}

// The whole body of a request.
std::string sent(const HTTPRequest& request) {
  if (!request.rest) return request.body;
  std::string rest(request.rest->size(), '\0');
  EXPECT_EQ(request.rest->read(0, rest), rest.size());
  return request.body + rest;
}

class UploadBackendTest : public testing::Test {
 protected:
  UploadBackendTest() {
    make({{"post_url", "https://up.test/put"}});
    reply("{\"success\":true}");
  }
  // Nothing is released that was not consumed, on whatever way the operation ended.
  void TearDown() override {
    compressorFails = false;
    EXPECT_EQ(platform.extensionTokens->usage().handles, 0u);
  }

  void make(const Dictionary& profile, std::optional<std::string> identifier = udid) {
    backend = UploadBackend::initWithName(
        "uploadServer", &profile,
        shared({.sessionID = 4000000000, .udid = identifier, .productFamily = "Robin"}));
  }
  void reply(const std::string& body, int status = 200) {
    platform.http->answerWith(
        [body, status](const HTTPRequest&) { return FakeHTTPClient::response(status, body); });
  }
  // With the file granted for the call.
  bool upload(const std::string& path = "/var/log/call log.txt") {
    platform.log.clear();
    const ExtensionTokens::Grant grant(*platform.extensionTokens, file);
    return backend->uploadFileAtPath(path, grant.token());
  }
  // Of the last request.
  std::string url() const { return platform.http->requests().back().url; }
  std::string filenameOf(const std::string& path) {
    EXPECT_TRUE(upload(path)) << path;
    const std::string all = url();
    const std::size_t begin = all.find("&filename=") + 10;
    return all.substr(begin, all.rfind("&raw=true") - begin);
  }
  std::size_t requests() const { return platform.http->requests().size(); }
  std::vector<std::string> errors() const { return platform.log.texts(LogLevel::error); }
  std::vector<std::string> debugLines() const { return platform.log.texts(LogLevel::debug); }
  std::size_t consumed() const { return platform.extensionTokens->usage().consumed; }

  TestPlatform platform;
  std::shared_ptr<UploadBackend> backend;
  std::shared_ptr<FakeGrantedFile> file = std::make_shared<FakeGrantedFile>("file content");
};

// ---- Creation

TEST_F(UploadBackendTest, TakesItsAddressesFromTheProfile) {
  make({{"post_url", "https://up.test/put"}, {"display_url", "https://up.test"}});
  EXPECT_EQ(backend->uploadURL(), "https://up.test/put");
  EXPECT_EQ(backend->displayURL(), "https://up.test");
  EXPECT_EQ(backend->name(), "uploadServer");
  EXPECT_EQ(backend->identity().productFamily, "Robin");
  make({{"post_url", "https://up.test/put"}, {"display_url", 7}});
  EXPECT_EQ(backend->displayURL(), std::nullopt);
}

TEST_F(UploadBackendTest, IsNotCreatedWithoutAPostURL) {
  const Dictionary empty;
  const Dictionary wrong{{"post_url", 7}};
  for (const Dictionary* profile : {static_cast<const Dictionary*>(nullptr), &empty, &wrong}) {
    platform.log.clear();
    EXPECT_EQ(UploadBackend::initWithName("uploadServer", profile, shared()), nullptr);
    EXPECT_THAT(errors(),
                ElementsAre("UploadBackend(initWithName): can't resolve upload post URL."));
  }
}

TEST_F(UploadBackendTest, TheFactoryMakesItUnderItsName) {
  const Dictionary section{{"uploadServer", Dictionary{{"post_url", "https://up.test/put"}}},
                           {"httpPost", 1}};
  const Dictionary info{{"ClientType", 5}, {"SessionID", 42}};
  const auto backends = createBackends(&section, &info, nullptr, udid);
  ASSERT_EQ(backends->size(), 1u);
  backend = std::dynamic_pointer_cast<UploadBackend>(backends->at("uploadServer"));
  ASSERT_NE(backend, nullptr);
  EXPECT_TRUE(upload("/x"));
  EXPECT_EQ(url(), std::string("https://up.test/put?uuid=") + udid +
                       "&sequence=42&description=Parley%20AFRC%20log%20(Uploaded%20by%20Mantle)"
                       "&filename=x.gz&raw=true");
}

TEST_F(UploadBackendTest, ReportsFromTheStart) {
  backend->updateState();
  EXPECT_EQ(backend->state(), BackendState::sending);
}

// ---- The request

TEST_F(UploadBackendTest, PostsTheFileCompressedWithItsQuery) {
  EXPECT_TRUE(upload());
  ASSERT_EQ(requests(), 1u);
  const HTTPRequest request = platform.http->requests()[0];
  EXPECT_EQ(request.method, "POST");
  EXPECT_EQ(request.url,
            "https://up.test/put?uuid=0123456789abcdef0123456789abcdef01234567"
            "&sequence=4000000000&description=Parley%20AFRC%20log%20(Uploaded%20by%20Mantle)"
            "&filename=call%20log.txt.gz&raw=true");
  EXPECT_EQ(request.headers, (HTTPHeaders{{"Content-Type", "application/octet-stream"},
                                          {"Content-Encoding", "gzip"}}));
  EXPECT_EQ(gunzip(request.body), "file content");
  EXPECT_TRUE(request.wantsBody);
}

TEST_F(UploadBackendTest, NamesAreEncodedByteForByte) {
  EXPECT_EQ(filenameOf("/a/call log.txt"), "call%20log.txt.gz");
  EXPECT_EQ(filenameOf("/a/it's \"so\""), "it's%20%22so%22.gz");
  EXPECT_EQ(filenameOf("/a/gr\xc3\xbc\xc3\x9f"), "gr%C3%BC%C3%9F.gz");
  EXPECT_EQ(filenameOf("/a/line\nbreak"), "line%0Abreak.gz");
  EXPECT_EQ(filenameOf("/a/bytes\xff"), "bytes%FF.gz");
  EXPECT_EQ(filenameOf("/a/100%#[x]"), "100%25%23%5Bx%5D.gz");
  EXPECT_EQ(filenameOf("/a/b&c=d+e?f;g"), "b&c=d+e?f;g.gz");
}

TEST_F(UploadBackendTest, TheLastPartOfThePathIsTheName) {
  EXPECT_EQ(filenameOf("/a/b/../c"), "c.gz");
  EXPECT_EQ(filenameOf("relative"), "relative.gz");
  EXPECT_EQ(filenameOf("/a/folder//"), "folder.gz");
  EXPECT_EQ(filenameOf("/"), "/.gz");
  EXPECT_EQ(filenameOf(""), ".gz");
}

TEST_F(UploadBackendTest, AnAbsentIdentifierIsWrittenAsSuch) {
  make({{"post_url", "https://up.test/put"}}, std::nullopt);
  EXPECT_TRUE(upload());
  EXPECT_THAT(url(), ::testing::HasSubstr("?uuid=(null)&sequence="));
}

TEST_F(UploadBackendTest, WithoutAnURLNothingHappens) {
  backend->setUploadURL(std::nullopt);
  EXPECT_EQ(backend->uploadURL(), std::nullopt);
  EXPECT_FALSE(upload());
  EXPECT_EQ(requests(), 0u);
  EXPECT_EQ(consumed(), 0u);
  EXPECT_THAT(errors(), IsEmpty());
  backend->setUploadURL("https://other.test/in");
  EXPECT_TRUE(upload());
  EXPECT_TRUE(url().starts_with("https://other.test/in?uuid="));
}

TEST_F(UploadBackendTest, ATextThatIsNoURLMakesNoRequest) {
  for (const char* odd : {"https://up test/put", "https://up.test/\xc3\xbc", "https://up.test/%",
                          "https://[::1/upload", "https://host:port/upload"}) {
    backend->setUploadURL(odd);
    EXPECT_FALSE(upload()) << odd;
    EXPECT_THAT(errors(),
                ElementsAre("UploadBackend(uploadFileAtPath): Unable to create URL request"));
  }
  EXPECT_EQ(requests(), 0u);
  EXPECT_EQ(file->removals, 0);
}

TEST_F(UploadBackendTest, LargeFilesHaveMoreTime) {
  using std::chrono::seconds;
  EXPECT_TRUE(upload());
  EXPECT_EQ(platform.http->requests().back().timeout, seconds(60));
  const std::string content = noise(std::size_t{1} << 20);
  file = std::make_shared<FakeGrantedFile>(content);
  EXPECT_TRUE(upload());
  const HTTPRequest request = platform.http->requests().back();
  EXPECT_GT(sent(request).size(), content.size());
  EXPECT_EQ(request.timeout, seconds(60 + 32));
}

// ---- What is not sent

TEST_F(UploadBackendTest, OnlyARegularFileIsUploaded) {
  file->announced.isRegularFile = false;
  EXPECT_FALSE(upload("/a/folder"));
  EXPECT_THAT(errors(),
              ElementsAre("UploadBackend(uploadFileAtPath): Only upload a regular file."));
  EXPECT_THAT(debugLines(),
              ElementsAre("UploadBackend(uploadFileAtPath): Uploading file /a/folder"));
  EXPECT_EQ(requests(), 0u);
  EXPECT_THAT(file->reads, IsEmpty());
}

TEST_F(UploadBackendTest, AnEmptyFileIsNotUploaded) {
  file = std::make_shared<FakeGrantedFile>("");
  EXPECT_FALSE(upload());
  EXPECT_THAT(errors(), ElementsAre("UploadBackend(uploadFileAtPath): Input file is empty"));
  EXPECT_EQ(requests(), 0u);
}

TEST_F(UploadBackendTest, AFileThatCannotBeReadCountsAsEmpty) {
  file->unreadableFrom = 0;
  EXPECT_FALSE(upload());
  EXPECT_THAT(errors(), ElementsAre("UploadBackend(uploadFileAtPath): Input file is empty"));
  EXPECT_EQ(requests(), 0u);
}

TEST_F(UploadBackendTest, AFileThatCannotBeReadToItsEndIsNotSentInPart) {
  file = std::make_shared<FakeGrantedFile>(std::string(200'000, 'x'));
  file->unreadableFrom = 200'000;
  EXPECT_TRUE(upload());
  file->unreadableFrom = 65'536;
  EXPECT_FALSE(upload());
  EXPECT_THAT(errors(), ElementsAre("UploadBackend(uploadFileAtPath): Input file is empty"));
  EXPECT_EQ(requests(), 1u);
  EXPECT_EQ(file->removals, 1);
}

TEST_F(UploadBackendTest, AFileIsReadPieceByPieceAndSentWhole) {
  std::string content;
  for (int i = 0; content.size() < 1'000'000; ++i) content += std::to_string(i);
  file = std::make_shared<FakeGrantedFile>(content);
  EXPECT_TRUE(upload());
  EXPECT_EQ(file->reads.size(), (content.size() + 65'535) / 65'536);
  EXPECT_EQ(gunzip(sent(platform.http->requests()[0])), content);
}

TEST_F(UploadBackendTest, WhatStaysLargeIsNotKeptInMemory) {
  const std::string content = noise(1'000'000);
  file = std::make_shared<FakeGrantedFile>(content);
  EXPECT_TRUE(upload());
  const HTTPRequest request = platform.http->requests().back();
  EXPECT_LE(request.body.size(), UploadBackend::mostBytesInMemory);
  ASSERT_TRUE(request.rest);
  EXPECT_EQ(gunzip(sent(request)), content);
}

TEST_F(UploadBackendTest, WithoutRoomForItNothingIsSent) {
  file = std::make_shared<FakeGrantedFile>(noise(1'000'000));
  platform.files->createUnnamedFailure = Failure{"Permission denied", EACCES};
  EXPECT_FALSE(upload());
  EXPECT_THAT(errors(), ElementsAre("UploadBackend(uploadFileAtPath): There is no room for the "
                                    "compressed file: Permission denied"));
  platform.files->createUnnamedFailure.reset();
  platform.files->unnamedCapacity = 500'000;
  EXPECT_FALSE(upload());
  EXPECT_THAT(errors(), ElementsAre("UploadBackend(uploadFileAtPath): There is no room for the "
                                    "compressed file: No space left on device"));
  EXPECT_EQ(requests(), 0u);
  EXPECT_EQ(file->removals, 0);
}

TEST_F(UploadBackendTest, AFilePastTheLimitIsRefusedBeforeItIsRead) {
  file->announced.size = limits::uploadBytes + 1;
  EXPECT_FALSE(upload());
  EXPECT_THAT(errors(), ElementsAre("UploadBackend(uploadFileAtPath): Input file has 268435457 "
                                    "bytes, more than the 268435456 of the limit"));
  EXPECT_THAT(file->reads, IsEmpty());
  file->announced.size = limits::uploadBytes;
  EXPECT_TRUE(upload());
}

TEST_F(UploadBackendTest, AFileThatFindsNoMemoryBesideOtherUploadsIsRefusedBeforeItIsRead) {
  {
    auto other = platform.extensionTokens->consume("");
    ASSERT_TRUE(other.claim(limits::uploadBytesUnderWay / 3 * 2));
    EXPECT_FALSE(upload());
    EXPECT_THAT(errors(),
                ElementsAre("UploadBackend(uploadFileAtPath): 12 bytes are too many beside what is "
                            "being uploaded already"));
    EXPECT_THAT(file->reads, IsEmpty());
  }
  EXPECT_TRUE(upload());
  EXPECT_EQ(platform.extensionTokens->usage().claimed, 0u);
}

TEST_F(UploadBackendTest, AFileIsReadOnceAndNotPastItsSize) {
  file->announced.size = 4;
  EXPECT_TRUE(upload());
  EXPECT_THAT(file->reads, ElementsAre(4u));
  EXPECT_EQ(gunzip(platform.http->requests()[0].body), "file");
}

TEST_F(UploadBackendTest, ATokenThatNobodyGrantedUploadsNothing) {
  EXPECT_FALSE(backend->uploadFileAtPath("/etc/shadow", "forged"));
  EXPECT_FALSE(backend->uploadFileAtPath("/etc/shadow", ""));
  EXPECT_THAT(errors(),
              ElementsAre("UploadBackend(uploadFileAtPath): Only upload a regular file.",
                          "UploadBackend(uploadFileAtPath): Only upload a regular file."));
  EXPECT_EQ(requests(), 0u);
  EXPECT_EQ(consumed(), 2u);
}

TEST_F(UploadBackendTest, WhatCannotBeCompressedIsNotSent) {
  compressorFails = true;
  EXPECT_FALSE(upload());
  EXPECT_THAT(errors(),
              ElementsAre("compressDataWithZlibOrGzip: zlib error while attempting compression: "
                          "\"The stream state was inconsistent (e.g., next_in or next_out was "
                          "NULL).\" Message: \"(null)\""));
  EXPECT_EQ(requests(), 0u);
  EXPECT_EQ(file->removals, 0);
  compressorFails = false;
  EXPECT_TRUE(upload());
}

// ---- What comes of it

TEST_F(UploadBackendTest, AReplyWithSuccessInItRemovesTheFile) {
  for (const char* text :
       {"success", "{\"success\":false}", "unsuccessful", "no\nsuccess\n", "\xff success"}) {
    file = std::make_shared<FakeGrantedFile>("x");
    reply(text);
    EXPECT_TRUE(upload());
    EXPECT_EQ(file->removals, 1) << text;
  }
}

TEST_F(UploadBackendTest, SuccessCountsWhateverTheStatus) {
  reply("success", 500);
  EXPECT_TRUE(upload());
  EXPECT_EQ(file->removals, 1);
}

TEST_F(UploadBackendTest, AnyOtherReplyKeepsTheFile) {
  for (const char* text : {"", "failure", "Success", "SUCCESS", "succes s", "\xff"}) {
    reply(text);
    EXPECT_TRUE(upload());
    EXPECT_EQ(file->removals, 0) << text;
    EXPECT_THAT(errors(), IsEmpty());
  }
}

TEST_F(UploadBackendTest, TheReplyIsLogged) {
  reply("stored \xff");
  EXPECT_TRUE(upload("/x"));
  EXPECT_THAT(debugLines(),
              ElementsAre("UploadBackend(uploadFileAtPath): Uploading file /x",
                          ::testing::StartsWith("compressDataWithZlibOrGzip: "),
                          "UploadBackend(uploadFileAtPath): sending to |https://up.test/put|, "
                          "Json output: stored \xEF\xBF\xBD"));
}

TEST_F(UploadBackendTest, ATransportErrorKeepsTheFileAndIsStillAnUpload) {
  platform.http->answerWith(
      [](const HTTPRequest&) { return FakeHTTPClient::error(28, "up.test: timed out (success)"); });
  EXPECT_TRUE(upload());
  EXPECT_THAT(errors(), ElementsAre("UploadBackend(uploadFileAtPath): post up.test: timed out "
                                    "(success)"));
  EXPECT_EQ(file->removals, 0);
}

TEST_F(UploadBackendTest, NeitherAnswerNorErrorKeepsTheFileAndIsStillAnUpload) {
  platform.http->answerWith([](const HTTPRequest&) { return HTTPOutcome{}; });
  EXPECT_TRUE(upload());
  EXPECT_THAT(errors(), ElementsAre("UploadBackend(uploadFileAtPath): post (null)"));
  EXPECT_EQ(file->removals, 0);
}

TEST_F(UploadBackendTest, TheHandleIsReleasedOnEveryWayOut) {
  const auto released = [&](const std::function<void()>& prepare) {
    const std::size_t before = consumed();
    file = std::make_shared<FakeGrantedFile>("content");
    backend->setUploadURL("https://up.test/put");
    reply("success");
    prepare();
    upload();
    EXPECT_EQ(platform.extensionTokens->usage().handles, 0u);
    EXPECT_EQ(file.use_count(), 1);
    return consumed() - before;
  };
  EXPECT_EQ(released([] {}), 1u);
  EXPECT_EQ(released([&] { file->announced.isRegularFile = false; }), 1u);
  EXPECT_EQ(released([&] { file->announced.size = limits::uploadBytes + 1; }), 1u);
  EXPECT_EQ(released([&] { file->content.clear(); }), 1u);
  EXPECT_EQ(released([] { compressorFails = true; }), 1u);
  compressorFails = false;
  EXPECT_EQ(released([&] { backend->setUploadURL("no url"); }), 1u);
  EXPECT_EQ(released([&] { reply("failure"); }), 1u);
  EXPECT_EQ(released([&] {
              platform.http->answerWith(
                  [](const HTTPRequest&) { return FakeHTTPClient::error(7, "refused"); });
            }),
            1u);
  EXPECT_EQ(released([&] {
              platform.http->answerWith([](const HTTPRequest&) { return HTTPOutcome{}; });
            }),
            1u);
}

TEST_F(UploadBackendTest, TheHandleIsReleasedAlsoByAnException) {
  platform.http->answerWith([](const HTTPRequest&) -> HTTPOutcome { throw std::bad_alloc(); });
  EXPECT_THROW(upload(), std::bad_alloc);
  EXPECT_EQ(consumed(), 1u);
  EXPECT_EQ(platform.extensionTokens->usage().handles, 0u);
  EXPECT_EQ(file->removals, 0);
}

}  // namespace
}  // namespace corvid
