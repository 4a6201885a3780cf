#include <gtest/gtest.h>

#include <stdexcept>

#include "gateway/Limits.h"
#include "gateway/loader/PostReader.h"

namespace corvid::fleet {
namespace {

TEST(PostReader, TakesTheFieldsOfEachEventAndItsText) {
  const std::string first =
      R"({"_sender":"ZH","_method":7,"_status":2,"_sessionID":"a.b","_build":"6.1","_clientVersion":3,)"
      R"("_eventNumber":2,"eventTime":1795255260.5,"nested":{"_method":9,"list":[{"_status":8}]}})";
  const std::string second = R"({"name":"Zo\u00eb"})";
  const std::string body =
      R"({"postTime":1.5,"events":[)" + first + ", " + second + R"(],"clientId":"C-1"})";
  const Post post = postFrom(body);
  EXPECT_EQ(post.client, "C-1");
  ASSERT_EQ(post.events.size(), 2U);
  const PostedEvent& event = post.events[0];
  EXPECT_EQ(event.payload, first);
  EXPECT_EQ(event.sender, "ZH");
  EXPECT_EQ(event.method, 7);
  EXPECT_EQ(event.status, 2);
  EXPECT_EQ(event.session, "a.b");
  EXPECT_EQ(event.build, "6.1");
  EXPECT_EQ(event.version, 3);
  EXPECT_EQ(event.number, 2);
  EXPECT_EQ(event.time, 1795255260.5);
  EXPECT_EQ(post.events[1].payload, second);
  EXPECT_FALSE(post.events[1].sender || post.events[1].method || post.events[1].time);
}

TEST(PostReader, CountsFieldsOfAnotherTypeAsMissing) {
  const Post post =
      postFrom(R"({"clientId":"C","events":[{"_method":"7","_status":1.5,"_sender":3}]})");
  ASSERT_EQ(post.events.size(), 1U);
  EXPECT_FALSE(post.events[0].method || post.events[0].status || post.events[0].sender);
}

TEST(PostReader, TakesEachNumberThatADoubleHoldsHoweverItIsWritten) {
  const Post post = postFrom(
      R"({"clientId":"C","postTime":0e308,"events":[{"eventTime":0.0e308,"_method":-0,"_status":7e0,)"
      R"("_clientVersion":9223372036854775807,"_eventNumber":9223372036854775808,"x":)" +
      std::string(400, '0').replace(0, 1, "1").insert(1, ".") + "e300},{\"eventTime\":2e-320}]}");
  ASSERT_EQ(post.events.size(), 2U);
  const PostedEvent& event = post.events[0];
  EXPECT_EQ(event.time, 0.0);
  EXPECT_EQ(event.method, 0);
  EXPECT_EQ(event.version, 9223372036854775807);
  EXPECT_FALSE(event.status || event.number) << "not whole, and beyond 64 bits";
  EXPECT_EQ(post.events[1].time, 2e-320);
}

TEST(PostReader, RefusesWhatIsNoPost) {
  for (const char* const body :
       {"", "[]", "{}", R"({"clientId":"C"})", R"({"events":[]})", R"({"clientId":7,"events":[]})",
        R"({"clientId":"C","events":{}})", R"({"clientId":"C","events":[1]})",
        R"({"clientId":"C","events":[[]]})", R"({"clientId":"C","events":["x"]})",
        R"({"clientId":"C","events":[null]})", R"({"clientId":"C","events":[]} x)",
        R"({"clientId":"C","events":[{])", "{\"clientId\":\"\xff\",\"events\":[]}",
        R"({"x":{"clientId":"C","events":[]}})"})
    EXPECT_THROW(postFrom(body), std::invalid_argument) << body;
}

TEST(PostReader, RefusesWhatWouldBecomeManyTimesAsMuch) {
  std::string events = "{}";
  for (std::size_t i = 1; i < limits::events; ++i) events += ",{}";
  EXPECT_EQ(postFrom(R"({"clientId":"C","events":[)" + events + "]}").events.size(),
            limits::events);
  EXPECT_THROW(postFrom(R"({"clientId":"C","events":[{},)" + events + "]}"), std::invalid_argument);
  const std::string client(1024, 'x');
  EXPECT_EQ(postFrom(R"({"clientId":")" + client + R"(","events":[]})").client, client);
  EXPECT_THROW(postFrom(R"({"clientId":"x)" + client + R"(","events":[]})"), std::invalid_argument);
}

TEST(PostReader, RefusesDepthsThatWouldTakeTheStack) {
  const std::string body = R"({"clientId":"C","events":[{"x":)" + std::string(1'000'000, '[');
  EXPECT_THROW(postFrom(body), std::invalid_argument);
}

}  // namespace
}  // namespace corvid::fleet
