#include <gtest/gtest.h>

#include "tools/lab/conform/Reply.h"

namespace corvid::lab::conform {
namespace {

TEST(ReplyTest, EndsWithItsLengthAndLeavesWhatFollows) {
  std::string bytes = "HTTP/1.1 200 OK\r\nContent-Length: 3\r\nX: a: b\r\n\r\nabcHTTP/1.1";
  const auto reply = takeReply(bytes, false);
  ASSERT_TRUE(reply);
  EXPECT_EQ(reply->status, 200);
  EXPECT_EQ(reply->body, "abc");
  EXPECT_EQ(reply->header("x"), "a: b");
  EXPECT_EQ(bytes, "HTTP/1.1");
}

TEST(ReplyTest, IsNotWholeBeforeItsLast) {
  const std::string whole =
      "HTTP/1.1 404 Not Found\r\nTransfer-Encoding: chunked\r\n\r\n3;x=y\r\nabc\r\n0\r\nT: x\r\n\r\n";
  for (std::size_t size = 0; size < whole.size(); ++size) {
    std::string bytes = whole.substr(0, size);
    EXPECT_FALSE(takeReply(bytes, true)) << size;
  }
  std::string bytes = whole;
  const auto reply = takeReply(bytes, false);
  ASSERT_TRUE(reply);
  EXPECT_EQ(reply->body, "abc");
  EXPECT_EQ(bytes, "");
}

TEST(ReplyTest, WithoutALengthEndsWithTheConnection) {
  std::string bytes = "HTTP/1.0 200 OK\r\n\r\nabc";
  EXPECT_FALSE(takeReply(bytes, false));
  EXPECT_EQ(takeReply(bytes, true)->body, "abc");
}

TEST(ReplyTest, AnInterimAnswerHasNoBody) {
  std::string bytes = "HTTP/1.1 100 Continue\r\n\r\nHTTP/1.1 200 OK\r\nContent-Length: 0\r\n\r\n";
  EXPECT_EQ(takeReply(bytes, false)->status, 100);
  EXPECT_EQ(takeReply(bytes, false)->status, 200);
}

TEST(ReplyTest, WhatIsNoHTTPIsToldAsSuch) {
  for (const char* const text :
       {"hello", "HTTP/1.1 abc OK\r\n\r\n", "HTTP/1.1 200 OK\r\nno colon\r\n\r\n",
        "HTTP/1.1 200 OK\r\nContent-Length: x\r\n\r\n",
        "HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\nzz\r\n"}) {
    std::string bytes = text;
    const auto reply = takeReply(bytes, false);
    ASSERT_TRUE(reply) << text;
    EXPECT_EQ(reply->kind, Reply::Kind::noHTTP) << text;
  }
}

TEST(ReplyTest, IsOneLineForPeople) {
  EXPECT_EQ((Reply{.status = 400, .body = "no\x1b[31m gzip\nmore"}.text()),
            "400 \"no\\x1b[31m gzip\"");
  EXPECT_EQ((Reply{.status = 204}.text()), "204");
  EXPECT_EQ((Reply{.kind = Reply::Kind::silence}.text()), "nothing in time");
}

}  // namespace
}  // namespace corvid::lab::conform
