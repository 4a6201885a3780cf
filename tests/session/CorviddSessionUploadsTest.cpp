#include "tests/session/SessionTest.h"

namespace corvid {
namespace {

using ::testing::ElementsAre;

class CorviddSessionUploadsTest : public SessionTest {
 protected:
  bool uploadFile(std::string url) {
    RecordedReply<bool> success;
    session->uploadFileAtPath(std::move(url), "token", success.reply());
    return success.result();
  }
  // Success and error that the client gets.
  RecordedReply<bool, std::optional<CorvidError>>::Answer uploadLogData() {
    RecordedReply<bool, std::optional<CorvidError>> recorded;
    session->uploadLogData({"a", "b"}, recorded.reply());
    return recorded.answer();
  }
};

TEST_F(CorviddSessionUploadsTest, WithoutBackendsAFileUploadFails) {
  session->setSessionID(7);
  platform.log.clear();
  EXPECT_FALSE(uploadFile("file:///tmp/log"));
  EXPECT_THAT(platform.log.texts(LogLevel::debug),
              ElementsAre("uploadFileAtPath: Uploading file for session 7"));
  EXPECT_THAT(platform.log.texts(LogLevel::error),
              ElementsAre("uploadFileWithURL: File upload failed for /tmp/log"));
  EXPECT_THAT(messageLog(),
              ElementsAre("[uploadFileWithURL] Upload failed for file file:///tmp/log"));
}

TEST_F(CorviddSessionUploadsTest, WithoutBackendsALogDataUploadFailsWithoutAnError) {
  platform.log.clear();
  const auto [success, error] = uploadLogData();
  EXPECT_FALSE(success);
  EXPECT_EQ(error, std::nullopt);
  EXPECT_EQ(platform.log.lines(),
            (std::vector{std::pair(LogLevel::error,
                                   std::string("uploadLogData: Log data array upload failed"))}));
}

TEST_F(CorviddSessionUploadsTest, OneBackendThatTakesTheFileIsEnoughAndAllAreAsked) {
  add(kCorvidBackendDashboard);
  add(kCorvidBackendMetrix).uploadAnswer = true;
  add(kCorvidBackendUploadServer);
  configureAndStart();
  EXPECT_TRUE(uploadFile("file:///tmp/log"));
  EXPECT_THAT(journal->entries(),
              ElementsAre("dashboard uploadFile /tmp/log token", "metrix uploadFile /tmp/log token",
                          "uploadServer uploadFile /tmp/log token"));
  EXPECT_THAT(platform.log.texts(LogLevel::debug),
              ElementsAre("uploadFileAtPath: Uploading file for session 7",
                          "uploadFileWithURL: File upload successful for /tmp/log"));
  EXPECT_THAT(platform.log.texts(LogLevel::error), ElementsAre());
  EXPECT_THAT(messageLog(),
              ElementsAre("[uploadFileWithURL] Upload succeeded for file file:///tmp/log"));
}

TEST_F(CorviddSessionUploadsTest, TheLogHasTheOutcomeBeforeTheClientHears) {
  add(kCorvidBackendUploadServer).uploadAnswer = true;
  configureAndStart();
  std::size_t linesAtAnswer = 0;
  session->uploadFileAtPath("file:///tmp/log", "token",
                            SuccessReply([&](bool) { linesAtAnswer = messageLog().size(); }));
  EXPECT_EQ(linesAtAnswer, 1u);
}

TEST_F(CorviddSessionUploadsTest, AFileThatNoBackendTakesFails) {
  add(kCorvidBackendDashboard);
  add(kCorvidBackendUploadServer);
  configureAndStart();
  EXPECT_FALSE(uploadFile("file:///tmp/log"));
  EXPECT_EQ(journal->entries().size(), 2u);
}

TEST_F(CorviddSessionUploadsTest, OneBackendThatTakesTheLogDataIsEnoughAndAllAreAsked) {
  add(kCorvidBackendDashboard).uploadAnswer = true;
  add(kCorvidBackendUploadServer);
  configureAndStart();
  const auto [success, error] = uploadLogData();
  EXPECT_TRUE(success);
  EXPECT_EQ(error, std::nullopt);
  EXPECT_THAT(journal->entries(),
              ElementsAre("dashboard uploadLogData 2", "uploadServer uploadLogData 2"));
  EXPECT_EQ(platform.log.lines(),
            (std::vector{std::pair(
                LogLevel::debug, std::string("uploadLogData: Log data array upload successful"))}));
}

TEST_F(CorviddSessionUploadsTest, LogDataThatNoBackendTakesFails) {
  add(kCorvidBackendDashboard);
  configureAndStart();
  EXPECT_EQ(uploadLogData(), (std::tuple{false, std::optional<CorvidError>()}));
  EXPECT_THAT(platform.log.texts(LogLevel::error),
              ElementsAre("uploadLogData: Log data array upload failed"));
}

TEST_F(CorviddSessionUploadsTest, AURLCannotWriteALineOfItsOwn) {
  EXPECT_FALSE(uploadFile("file:///tmp/a\n(forged)\x7f"));
  EXPECT_THAT(
      messageLog(),
      ElementsAre("[uploadFileWithURL] Upload failed for file file:///tmp/a%0A(forged)%7F"));
}

TEST_F(CorviddSessionUploadsTest, ThePathOfTheURLIsDecoded) {
  const std::map<std::string, std::string> pathOfURL{
      {"file:///tmp/plain.log", "/tmp/plain.log"},
      {"file:///tmp/a%20b%2f%C3%BC", "/tmp/a b/\xC3\xBC"},
      {"file://localhost/tmp/x", "/tmp/x"},
      {"file:/tmp/x", "/tmp/x"},
      {"file:///tmp/x?query#fragment", "/tmp/x"},
      {"file:///tmp/a%3Fb%23c", "/tmp/a?b#c"},
      {"file:///tmp/%zz%4", "/tmp/%zz%4"},
      {"file:///tmp/%2541", "/tmp/%41"},
      {"file:///tmp/x%00y", "/tmp/x%00y"},
      {"file://host", ""},
      {"/tmp/x", "/tmp/x"},
      {"", ""},
  };
  add(kCorvidBackendUploadServer);
  configureAndStart();
  for (const auto& [url, path] : pathOfURL) {
    forgetWhatHappened();
    uploadFile(url);
    EXPECT_THAT(journal->entries(), ElementsAre("uploadServer uploadFile " + path + " token"))
        << url;
    EXPECT_TRUE(
        platform.log.has(LogLevel::error, "uploadFileWithURL: File upload failed for " + path));
    EXPECT_THAT(messageLog(), ElementsAre("[uploadFileWithURL] Upload failed for file " + url));
  }
}

}  // namespace
}  // namespace corvid
