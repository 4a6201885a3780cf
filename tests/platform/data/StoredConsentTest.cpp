#include <gtest/gtest.h>

#include "platform/data/StoredConsent.h"
#include "tests/fakes/FakeServices.h"

namespace corvid {
namespace {

// Preferences on a full disk.
class UnwritablePreferences final : public Preferences {
 public:
  std::optional<Value> value(std::string_view, std::string_view) override { return std::nullopt; }
  bool setValue(std::string_view, std::string_view, Value) override { return false; }
  bool removeValue(std::string_view, std::string_view) override { return false; }
  std::vector<std::string> keys(std::string_view) override { return {}; }
};

class StoredConsentTest : public testing::Test {
 protected:
  std::shared_ptr<FakePreferences> preferences = std::make_shared<FakePreferences>();
  std::shared_ptr<FakeRandom> random = std::make_shared<FakeRandom>();
  StoredConsent consent{preferences, random};
};

TEST_F(StoredConsentTest, WithoutAnAnswerNothingIsAllowed) {
  EXPECT_FALSE(consent.diagnosticsSubmissionAllowed());
}

TEST_F(StoredConsentTest, TheAnswerIsReadEachTime) {
  preferences->setValue("com.halcyon.diagnostics", "SubmitDiagnostics", true);
  EXPECT_TRUE(consent.diagnosticsSubmissionAllowed());
  preferences->setValue("com.halcyon.diagnostics", "SubmitDiagnostics", false);
  EXPECT_FALSE(consent.diagnosticsSubmissionAllowed());
}

TEST_F(StoredConsentTest, OnlyABooleanIsAnAnswer) {
  for (const Value& other : {Value(1), Value("true"), Value(1.0), Value(Array{true})}) {
    preferences->setValue("com.halcyon.diagnostics", "SubmitDiagnostics", other);
    EXPECT_FALSE(consent.diagnosticsSubmissionAllowed());
  }
}

TEST_F(StoredConsentTest, NamesThePreferenceWhereThereIsAnAnswer) {
  EXPECT_EQ(consent.diagnosticsSubmission(), (Sourced<bool>{false, "default"}));
  preferences->setValue("com.halcyon.diagnostics", "SubmitDiagnostics", false);
  EXPECT_EQ(consent.diagnosticsSubmission(), (Sourced<bool>{false, "preference"}));
  preferences->setValue("com.halcyon.diagnostics", "SubmitDiagnostics", true);
  EXPECT_EQ(consent.diagnosticsSubmission(), (Sourced<bool>{true, "preference"}));
}

TEST_F(StoredConsentTest, TheTwoIdentifiersDifferAndStay) {
  const std::string respecting = consent.getPersistentIdentifierForDNU(true);
  const std::string overriding = consent.getPersistentIdentifierForDNU(false);
  EXPECT_EQ(respecting, "00000000-0000-0000-0000-000000000001");
  EXPECT_EQ(overriding, "00000000-0000-0000-0000-000000000002");
  EXPECT_EQ(consent.getPersistentIdentifierForDNU(true), respecting);
  // A later process has them too.
  StoredConsent later(preferences, random);
  EXPECT_EQ(later.getPersistentIdentifierForDNU(true), respecting);
  EXPECT_EQ(later.getPersistentIdentifierForDNU(false), overriding);
  EXPECT_EQ(preferences->keys(corvidSuite).size(), 2u);
}

TEST_F(StoredConsentTest, AnIdentifierOfAnotherTypeIsMadeAnew) {
  consent.getPersistentIdentifierForDNU(true);
  const std::string key = preferences->keys(corvidSuite).front();
  preferences->setValue(corvidSuite, key, 5);
  EXPECT_EQ(consent.getPersistentIdentifierForDNU(true), "00000000-0000-0000-0000-000000000002");
  preferences->setValue(corvidSuite, key, "");
  EXPECT_EQ(consent.getPersistentIdentifierForDNU(true), "00000000-0000-0000-0000-000000000003");
}

TEST_F(StoredConsentTest, IdentifiersThatCannotBeStoredLastAsLongAsTheProcess) {
  StoredConsent unstored(std::make_shared<UnwritablePreferences>(), random);
  const std::string respecting = unstored.getPersistentIdentifierForDNU(true);
  EXPECT_NE(unstored.getPersistentIdentifierForDNU(false), respecting);
  EXPECT_EQ(unstored.getPersistentIdentifierForDNU(true), respecting);
}

}  // namespace
}  // namespace corvid
