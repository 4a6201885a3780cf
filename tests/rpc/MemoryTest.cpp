// What a client can make the daemon keep for it.
#include <capnp/orphan.h>
#include <gtest/gtest.h>
#include <malloc.h>

#include <string>
#include <vector>

#include "tests/rpc/RawMessages.h"
#include "tests/rpc/ServiceFixture.h"
#include "tests/rpc/WireClient.h"

namespace corvid {
namespace {

constexpr std::uint16_t flushMethod = 5;

std::size_t bytesInUse() {
  const struct mallinfo2 info = mallinfo2();
  return info.uordblks + info.hblkhd;
}

// A flush whose message holds a mebibyte that none of its parameters points at.
std::string largeFlush(std::uint32_t question) {
  return call(question, flushMethod, [](capnp::rpc::Payload::Builder parameters) {
    auto content = parameters.getContent().initAs<wire::ClientSession::FlushParams>();
    content.setReplyWanted(true);
    capnp::Orphanage::getForMessageContaining(content).newOrphan<capnp::Data>(mebibyte);
  });
}

using Memory = ServiceFixture;

TEST_F(Memory, OfTheParametersOfACallThatWaitsForItsAnswerIsFree) {
  if (bytesInUse() == 0) GTEST_SKIP() << "this allocator does not tell what is in use";
  constexpr std::uint32_t calls = 40;
  Notice notice;
  std::vector<FlushReply> replies;
  delegate->onSession = [&](RecordingSession& session, auto&) {
    session.onFlush = [&](FlushReply reply) {
      notice.change([&] { replies.push_back(std::move(reply)); });
    };
  };
  start();
  RawClient raw(path);
  const std::size_t before = bytesInUse();
  raw.write(bootstrap(0));
  for (std::uint32_t i = 1; i <= calls; ++i) raw.write(largeFlush(i));
  ASSERT_TRUE(notice.await([&] { return replies.size() == calls; }));
  EXPECT_LT(bytesInUse(), before + calls * mebibyte / 4);
  notice.change([&] { replies.clear(); });
}

}  // namespace
}  // namespace corvid
