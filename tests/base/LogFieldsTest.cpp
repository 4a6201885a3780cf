#include <gtest/gtest.h>

#include <thread>

#include "base/LogFields.h"

namespace corvid {
namespace {

TEST(LogFields, AreNoneUnlessSaid) {
  EXPECT_EQ(logFields().subject, nullptr);
  EXPECT_EQ(logFields().backend, "");
  EXPECT_EQ(logFields().reason, "");
  EXPECT_EQ(logFields().messageID, "");
  EXPECT_EQ(sharedLogSubject(), nullptr);
}

TEST(LogFields, AreTheInnermostAndAfterItThoseBefore) {
  const auto outer = std::make_shared<LogSubject>(1), inner = std::make_shared<LogSubject>(2);
  const LoggingFor session(outer.get());
  const LoggingBackend backend("httpPost");
  const LoggingReason reason("noConsent", "1");
  {
    const LoggingFor other(inner.get());
    const LoggingBackend otherBackend("dashboard");
    const LoggingReason otherReason("noAddress", "2");
    EXPECT_EQ(logFields().subject, inner.get());
    EXPECT_EQ(logFields().backend, "dashboard");
    EXPECT_EQ(logFields().reason, "noAddress");
    EXPECT_EQ(logFields().messageID, "2");
  }
  EXPECT_EQ(logFields().subject, outer.get());
  EXPECT_EQ(logFields().backend, "httpPost");
  EXPECT_EQ(logFields().reason, "noConsent");
  EXPECT_EQ(logFields().messageID, "1");
}

TEST(LogFields, AreTheirThreadsOwn) {
  const auto subject = std::make_shared<LogSubject>(1);
  const LoggingFor session(subject.get());
  std::thread([] { EXPECT_EQ(logFields().subject, nullptr); }).join();
}

TEST(LogFields, ASubjectThatIsTakenAlongOutlivesItsOwner) {
  std::shared_ptr<const LogSubject> taken;
  {
    const auto subject = std::make_shared<LogSubject>(7);
    subject->setClient("Player");
    const LoggingFor session(subject.get());
    taken = sharedLogSubject();
  }
  EXPECT_EQ(taken->session(), 7u);
  EXPECT_EQ(taken->client(), "Player");
}

TEST(LogFields, ALongClientNameIsCut) {
  LogSubject subject(1);
  subject.setClient(std::string(LogSubject::mostClientBytes + 1, 'x'));
  EXPECT_EQ(subject.client(), std::string(LogSubject::mostClientBytes, 'x'));
}

}  // namespace
}  // namespace corvid
