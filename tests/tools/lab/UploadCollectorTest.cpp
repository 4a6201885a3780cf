// Files as the lab receives them, and what it tells people of them.
#include <string>

#include "platform/Compressor.h"
#include "tests/tools/lab/LabFixture.h"
#include "tools/lab/Collectors.h"

namespace corvid::lab {
namespace {

class UploadCollectorTest : public LabFixture {
 protected:
  Got post(const std::string& query, const std::string& content) {
    return peer.post(address("upload") + query, *Compressor().gzipDeflate(content));
  }
  void plan(const std::string& json) const {
    EXPECT_EQ(Peer("").post(address("control"), json).status, 200) << json;
  }
};

TEST_F(UploadCollectorTest, WritesDownQueryAndFileAndConfirms) {
  const Got got = post("?uuid=ab&sequence=7&filename=call%20log.txt.gz&raw=true", "content\n");
  EXPECT_EQ(got.status, 200);
  EXPECT_EQ(got.body, "{\"success\":true}\n");
  const auto entries = received();
  ASSERT_EQ(entries.size(), 1u);
  EXPECT_EQ(*stringAt(entries[0], "server"), "upload");
  EXPECT_EQ(*stringAt(entries[0], "target"),
            "/upload?uuid=ab&sequence=7&filename=call%20log.txt.gz&raw=true");
  EXPECT_EQ(
      *dictionaryAt(entries[0], "query"),
      (Dictionary{
          {"uuid", "ab"}, {"sequence", "7"}, {"filename", "call log.txt.gz"}, {"raw", "true"}}));
  EXPECT_EQ(
      *dictionaryAt(entries[0], "file"),
      (Dictionary{{"size", 8},
                  {"sha256", "434728a410a78f56fc1b5899c3593436e61ab0c731e9072d95e96db290205e53"},
                  {"content", "content\n"}}));
}

TEST_F(UploadCollectorTest, ShowsNoContentThatIsLargeOrNoText) {
  EXPECT_EQ(post("", std::string(Collectors::shownBytes + 1, 'x')).status, 200);
  EXPECT_EQ(post("", "\xff\xfe").status, 200);
  ASSERT_EQ(received().size(), 2u);
  for (const Dictionary& entry : received()) {
    EXPECT_FALSE(dictionaryAt(entry, "file")->contains("content"));
    EXPECT_EQ(*dictionaryAt(entry, "query"), Dictionary());
  }
}

TEST_F(UploadCollectorTest, RefusesWhatItCannotUnpackAndWritesItDown) {
  EXPECT_EQ(peer.post(address("upload"), "plain").status, 400);
  EXPECT_EQ(peer.get(address("upload")).status, 405);
  const auto entries = received();
  ASSERT_EQ(entries.size(), 1u);
  EXPECT_EQ(*stringAt(entries[0], "error"), "the body is not gzip");
}

TEST_F(UploadCollectorTest, AnswersWhatItIsTold) {
  plan(R"({"server":"upload","body":"no success"})");
  EXPECT_EQ(post("", "x").body, "no success");
  plan(R"({"server":"upload","status":503,"body":"later"})");
  const Got got = post("", "x");
  EXPECT_EQ(got.status, 503);
  EXPECT_EQ(got.body, "later");
  plan(R"({"server":"upload","body":""})");
  EXPECT_EQ(post("", "x").body, "");
  EXPECT_EQ(post("", "x").body, "{\"success\":true}\n");
}

TEST(UploadSummaryTest, NamesTheFile) {
  EXPECT_EQ(summary({{"server", "upload"},
                     {"bytes", 30},
                     {"headers", Dictionary{{"Content-Encoding", "gzip"}}},
                     {"query", Dictionary{{"filename", "call log.txt.gz"}}},
                     {"file", Dictionary{{"size", 8}}}}),
            "upload received 30 bytes, gzip, from sender -\n"
            "    file call log.txt.gz of 8 bytes\n");
}

}  // namespace
}  // namespace corvid::lab
