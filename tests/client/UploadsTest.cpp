// Files from the client library to a listener.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <string>

#include "protocol/Limits.h"
#include "tests/client/SessionFixture.h"

namespace corvid {
namespace {

namespace fs = std::filesystem;

class ClientUploads : public SessionFixture {
 protected:
  void SetUp() override {
    delegate->onSession = [this](RecordingSession& recording, auto&) {
      recording.onUpload = [this](const std::string& token) {
        if (meanwhile) meanwhile();
        const auto handle = tokens.consume(token);
        wasFile = handle.attributes().isRegularFile;
        content = handle.read(0, handle.attributes().size).value_or("");
        if (removes) handle.remove();
      };
    };
    start();
    session.emplace(options());
    fs::create_directory(files);
  }
  void TearDown() override {
    session.reset();
    SessionFixture::TearDown();
  }

  std::string write(const std::string& name, const std::string& text = "content") const {
    const std::string file = files + "/" + name;
    std::ofstream(file, std::ios::binary) << text;
    return file;
  }
  // Whether the session heard of the file as one; what is at `file` when the callback runs.
  bool upload(const std::string& file) {
    content.clear();
    wasFile = false;
    bool ended = false;
    EXPECT_TRUE(session->uploadFile(
        file.c_str(),
        [&](client::Status, bool, std::optional<client::Error>) {
          stoodAtTheEnd = fs::exists(fs::symlink_status(file));
        },
        [&](corvid_outcome_t) { note([&] { ended = true; }); }));
    EXPECT_TRUE(await([&] { return ended; }));
    return wasFile;
  }

  std::optional<client::Session> session;
  const std::string files = folder.path() + "/files";
  // Set before an upload; run on the daemon's side.
  std::function<void()> meanwhile;
  bool removes = false;
  // Of the last upload.
  bool wasFile = false;
  std::string content;
  bool stoodAtTheEnd = false;
};

TEST_F(ClientUploads, ARegularFileIsGranted) {
  EXPECT_TRUE(upload(write("log")));
  EXPECT_EQ(content, "content");
  EXPECT_TRUE(stoodAtTheEnd);
}

TEST_F(ClientUploads, ARelativePathBeginsInTheWorkingFolder) {
  write("log");
  const fs::path before = fs::current_path();
  fs::current_path(files);
  EXPECT_TRUE(upload("log"));
  EXPECT_TRUE(upload("../files/./log"));
  fs::current_path(before);
  EXPECT_EQ(delegate->at(0).session->calls()[0].text, "file://" + files + "/log");
}

TEST_F(ClientUploads, TheFileIsGoneBeforeTheCallbackWhereTheDaemonHasItRemoved) {
  removes = true;
  EXPECT_TRUE(upload(write("log")));
  EXPECT_FALSE(stoodAtTheEnd);
}

TEST_F(ClientUploads, WhatIsNoRegularFileIsAnnouncedAndNotGranted) {
  const std::string file = write("log");
  fs::create_symlink(file, files + "/link");
  fs::create_symlink(files + "/nothing", files + "/dangling");
  ASSERT_EQ(mkfifo((files + "/pipe").c_str(), 0600), 0);
  for (const std::string& other :
       {files + "/link", files + "/dangling", files + "/pipe", files, files + "/", files + "/.",
        files + "/missing", files + "/missing/log", file + "/", std::string("/dev/null"),
        std::string("/")})
    EXPECT_FALSE(upload(other)) << other;
  EXPECT_EQ(delegate->at(0).session->calls().size(), 11u);
}

TEST_F(ClientUploads, ALinkAmongTheFoldersIsFollowed) {
  write("log");
  fs::create_directory_symlink(files, folder.path() + "/elsewhere");
  removes = true;
  EXPECT_TRUE(upload(folder.path() + "/elsewhere/log"));
  EXPECT_FALSE(stoodAtTheEnd);
}

TEST_F(ClientUploads, EveryNameComesThrough) {
  removes = true;
  for (const char* name : {"call log.txt", "it's \"quoted\"", "gr\xc3\xbc\xc3\x9f", "line\nbreak",
                           "100%25", "a?b#c", "bytes\xff\xfe", "-rf"}) {
    EXPECT_TRUE(upload(write(name, name))) << name;
    EXPECT_EQ(content, name);
    EXPECT_FALSE(stoodAtTheEnd) << name;
  }
}

TEST_F(ClientUploads, AFileThatIsSwappedMeanwhileIsNeitherReadNorRemoved) {
  const std::string file = write("log");
  removes = true;
  meanwhile = [&] {
    write("other", "another content");
    fs::rename(files + "/other", file);
  };
  EXPECT_TRUE(upload(file));
  EXPECT_EQ(content, "content");
  EXPECT_TRUE(stoodAtTheEnd);
}

TEST_F(ClientUploads, ALinkThatTakesTheFilesPlaceIsNotFollowed) {
  const std::string file = write("log");
  const std::string precious = write("precious");
  removes = true;
  meanwhile = [&] {
    fs::remove(file);
    fs::create_symlink(precious, file);
  };
  EXPECT_TRUE(upload(file));
  EXPECT_TRUE(stoodAtTheEnd);
  EXPECT_TRUE(fs::exists(precious));
}

TEST_F(ClientUploads, AFileIsRemovedFromTheFolderThatItWasOpenedIn) {
  fs::create_directory(files + "/old");
  const std::string file = write("old/log");
  removes = true;
  meanwhile = [&] {
    fs::rename(files + "/old", files + "/moved");
    fs::create_directory(files + "/old");
    write("old/log", "new");
  };
  EXPECT_TRUE(upload(file));
  EXPECT_TRUE(stoodAtTheEnd);
  EXPECT_FALSE(fs::exists(files + "/moved/log"));
}

TEST_F(ClientUploads, OfAHardLinkOnlyTheNameThatWasUploadedGoes) {
  const std::string file = write("log");
  fs::create_hard_link(file, files + "/other");
  removes = true;
  EXPECT_TRUE(upload(files + "/other"));
  EXPECT_FALSE(stoodAtTheEnd);
  EXPECT_TRUE(fs::exists(file));
}

TEST_F(ClientUploads, AFilePastTheLimitIsRefusedAtOnce) {
  const std::string file = write("huge", "");
  fs::resize_file(file, limits::uploadBytes + 1);
  EXPECT_EQ(session->uploadFile(file.c_str()).code(), CORVID_ERROR_TOO_LARGE);
  fs::resize_file(file, limits::uploadBytes);
  meanwhile = [&] { fs::resize_file(file, 3); };  // so that it need not be read
  EXPECT_TRUE(upload(file));
  EXPECT_EQ(content.size(), 3u);
}

TEST_F(ClientUploads, UploadsKeepTheirPlaceAmongOtherCalls) {
  const std::string file = write("log");
  for (std::uint16_t i = 0; i < 40; ++i) {
    ASSERT_TRUE(session->sendMessage(i, 0, client::Session::none()));
    if (i % 8 == 3) {
      ASSERT_TRUE(session->uploadFile(file.c_str()));
    }
  }
  EXPECT_TRUE(upload(file));
  const auto calls = delegate->at(0).session->calls();
  ASSERT_EQ(calls.size(), 46u);
  EXPECT_EQ(calls[4].name, "uploadFile");
  EXPECT_EQ(calls[5].category, 4);
  EXPECT_EQ(calls[13].name, "uploadFile");
}

TEST_F(ClientUploads, AFileStaysWithItsCallWhateverTravelsBesideIt) {
  const std::string file = write("log");
  int ended = 0;
  const auto count = [&](corvid_outcome_t) { note([&] { ++ended; }); };
  for (std::uint16_t i = 0; i < 50; ++i) {
    ASSERT_TRUE(session->sendMessage(i, 0, client::Session::none()));
    ASSERT_TRUE(session->uploadFile(file.c_str(), nullptr, count));
    ASSERT_TRUE(session->sendMessage(i, 1, client::Session::none()));
  }
  ASSERT_TRUE(await([&] { return ended == 50; }));
  std::size_t granted = 0;
  for (const auto& call : delegate->at(0).session->calls())
    granted += call.name == "uploadFile" && !call.token.empty();
  EXPECT_EQ(granted, 50u);
}

TEST_F(ClientUploads, DescriptorsAreClosedWhenTheCallsHaveEnded) {
  const std::string file = write("log");
  const auto count = [] {
    const fs::directory_iterator all("/proc/self/fd");
    return std::distance(begin(all), end(all));
  };
  EXPECT_TRUE(upload(file));
  const auto before = count();
  for (int i = 0; i < 100; ++i) EXPECT_TRUE(upload(file));
  session.reset();
  EXPECT_LE(count(), before);
}

}  // namespace
}  // namespace corvid
