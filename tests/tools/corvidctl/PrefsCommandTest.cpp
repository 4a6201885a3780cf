// `corvidctl prefs`, which works on the files, with or without a daemon.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fstream>
#include <iterator>

#include "platform/data/FilePreferences.h"
#include "tests/support/ChildProcess.h"
#include "tests/support/Scratch.h"
#include "tests/support/ToolProcess.h"

namespace corvid {
namespace {

class Prefs : public testing::Test {
 protected:
  ToolResult prefs(std::vector<std::string> arguments) const {
    arguments.insert(arguments.begin(), {"--root", root.path(), "prefs"});
    return runTool(CORVIDCTL_PROGRAM, std::move(arguments));
  }
  void set(const std::string& key, const std::string& value) const {
    const ToolResult result = prefs({"set", key, value});
    EXPECT_EQ(result.status, 0) << result.errors;
    EXPECT_EQ(result.output + result.errors, "");
  }
  std::string get(const std::string& key) const {
    const ToolResult result = prefs({"get", key});
    EXPECT_EQ(result.status, 0) << result.errors;
    return result.output;
  }
  std::optional<Value> stored(std::string_view suite, std::string_view key) const {
    return FilePreferences(root.path("var/lib/corvidd/Preferences")).value(suite, key);
  }
  void expectUsageError(std::vector<std::string> arguments, const std::string& message) const {
    const ToolResult result = prefs(std::move(arguments));
    EXPECT_EQ(result.status, 64);
    EXPECT_EQ(result.errors, "corvidctl: " + message + " (corvidctl prefs --help says more)\n");
    EXPECT_EQ(result.output, "");
  }

  ScratchRoot root;
};

TEST_F(Prefs, WhatIsSetIsStoredInTheDaemonsSuiteAndShown) {
  set("aNumber", "4");
  EXPECT_EQ(stored("com.halcyon.corvid", "aNumber"), Value(4));
  EXPECT_EQ(get("aNumber"), "4\n");
}

TEST_F(Prefs, AListThatCannotBeReadIsAFailure) {
  set("aNumber", "4");
  EXPECT_EQ(prefs({"list"}).status, 0);
  const std::string folder = root.path("var/lib/corvidd/Preferences");
  // Neither is there a way past the folder for somebody else, nor past a file that is none.
  const std::string errors = root.write("errors", "");
  const Descriptor output(open(errors.c_str(), O_WRONLY | O_CLOEXEC));
  chmod(root.path().c_str(), 0755);
  chmod(folder.c_str(), geteuid() == 0 ? 0700 : 0);
  ChildProcess other({.command = {CORVIDCTL_PROGRAM, "--root", root.path(), "prefs", "list"},
                      .streams = {0, output.get(), output.get()},
                      .prepare = [] {
                        if (geteuid() == 0 && setuid(65534) != 0) _exit(99);
                      }});
  EXPECT_EQ(other.waitForExit(), 1);
  EXPECT_NE(contentOf(errors).find("cannot read"), std::string::npos) << contentOf(errors);
  chmod(folder.c_str(), 0700);

  root.remove("var/lib/corvidd/Preferences/com.halcyon.corvid.plist");
  root.write("var/lib/corvidd/Preferences/com.halcyon.corvid.plist/file", "");
  EXPECT_EQ(prefs({"list"}).status, 1);
  EXPECT_EQ(prefs({"--suite", "../x", "list"}).status, 1);
  EXPECT_EQ(prefs({"--suite", "never.set", "list"}).status, 0);
}

TEST_F(Prefs, AValueIsJSONOrATextWhereItIsNone) {
  const std::pair<const char*, Value> cases[] = {
      {"true", true},
      {"-2.5", -2.5},
      {"\"4\"", "4"},
      {"plain words", "plain words"},
      {"gr\u00fc\u00df \"dich\"", "gr\u00fc\u00df \"dich\""},
      {"https://example.invalid/?a=b", "https://example.invalid/?a=b"},
      {"1,2", "1,2"},
      {"", ""},
      {"[1,[true],\"x\"]", Array{1, Array{true}, "x"}},
      {"{\"a\":{\"b\":1}}", Dictionary{{"a", Dictionary{{"b", 1}}}}},
      {"{\"$date\":1700000000}", Date{1700000000}},
      {"{\"$data\":\"AP8=\"}", Data{std::string("\0\xff", 2)}}};
  for (const auto& [text, value] : cases) {
    set("key", text);
    EXPECT_EQ(stored("com.halcyon.corvid", "key"), value) << text;
  }
}

TEST_F(Prefs, AnotherSuiteIsNamedByAnOption) {
  EXPECT_EQ(
      prefs({"--suite", "com.halcyon.diagnostics", "set", "SubmitDiagnostics", "true"}).status, 0);
  EXPECT_EQ(stored("com.halcyon.diagnostics", "SubmitDiagnostics"), Value(true));
  EXPECT_EQ(prefs({"get", "SubmitDiagnostics"}).status, 1);
  EXPECT_EQ(prefs({"get", "SubmitDiagnostics", "--suite", "com.halcyon.diagnostics"}).status, 0);
}

TEST_F(Prefs, ListShowsEveryKeyWithItsValue) {
  set("text", "a b");
  set("list", "[1,{\"$date\":2}]");
  const ToolResult result = prefs({"list"});
  EXPECT_EQ(result.status, 0);
  EXPECT_NE(result.output.find("text = \"a b\"\n"), std::string::npos) << result.output;
  EXPECT_NE(result.output.find("list = [1,{\"$date\":2"), std::string::npos) << result.output;
}

TEST_F(Prefs, AnEmptySuiteListsNothing) {
  const ToolResult result = prefs({"list"});
  EXPECT_EQ(result.status, 0);
  EXPECT_EQ(result.output + result.errors, "");
}

TEST_F(Prefs, DeleteRemovesAKey) {
  set("key", "1");
  EXPECT_EQ(prefs({"delete", "key"}).status, 0);
  EXPECT_EQ(stored("com.halcyon.corvid", "key"), std::nullopt);
}

TEST_F(Prefs, AMissingKeySaysSo) {
  const ToolResult result = prefs({"get", "nothing"});
  EXPECT_EQ(result.status, 1);
  EXPECT_EQ(result.output, "");
  EXPECT_EQ(result.errors, "corvidctl: com.halcyon.corvid has no key nothing\n");
}

TEST_F(Prefs, WrongUsesAreNamed) {
  expectUsageError({}, "prefs takes get KEY, set KEY VALUE, delete KEY or list");
  expectUsageError({"put", "a"}, "prefs takes get KEY, set KEY VALUE, delete KEY or list");
  expectUsageError({"get"}, "prefs get takes a KEY");
  expectUsageError({"get", "a", "b"}, "prefs get takes a KEY");
  expectUsageError({"delete"}, "prefs delete takes a KEY");
  expectUsageError({"set", "a"}, "prefs set takes a KEY and a VALUE");
  expectUsageError({"list", "a"}, "prefs list takes nothing more");
  expectUsageError({"list", "--suite"}, "--suite lacks its value");
  expectUsageError({"set", "a", "null"},
                   "null is no value of a preference; prefs delete removes the key");
  expectUsageError({"set", "a", "{\"$date\":\"x\"}"}, "\"$date\" takes a number of seconds, not x");
}

TEST_F(Prefs, ANameThatIsNoSuiteIsRefused) {
  const ToolResult result = prefs({"--suite", "../etc/x", "set", "a", "1"});
  EXPECT_EQ(result.status, 1);
  EXPECT_NE(result.errors.find("\"../etc/x\" is no name of a preference suite"), std::string::npos)
      << result.errors;
}

TEST_F(Prefs, ADamagedFileIsSetAsideAndNamed) {
  root.write("var/lib/corvidd/Preferences/com.halcyon.corvid.plist", "no property list");
  const ToolResult result = prefs({"set", "a", "1"});
  EXPECT_EQ(result.status, 0);
  EXPECT_NE(result.errors.find("com.halcyon.corvid.plist is damaged"), std::string::npos)
      << result.errors;
  EXPECT_EQ(stored("com.halcyon.corvid", "a"), Value(1));
  EXPECT_TRUE(
      std::ifstream(root.path("var/lib/corvidd/Preferences/com.halcyon.corvid.plist.damaged-1")));
}

// Root changes preferences of a daemon that runs as somebody else: that one must be able to read
// them afterwards.
TEST_F(Prefs, RootWritesAsTheOwnerOfTheDaemonsHome) {
  if (geteuid() != 0) GTEST_SKIP() << "only root can give files away";
  constexpr uid_t owner = 65534;
  root.write("var/lib/corvidd/.keep", "");
  ASSERT_EQ(chmod(root.path().c_str(), 0711), 0);
  ASSERT_EQ(chown(root.path("var/lib/corvidd").c_str(), owner, owner), 0);
  set("key", "1");
  for (const char* made : {"", "/com.halcyon.corvid.plist"}) {
    struct stat status {};
    ASSERT_EQ(stat((root.path("var/lib/corvidd/Preferences") + made).c_str(), &status), 0);
    EXPECT_EQ(status.st_uid, owner) << made;
    EXPECT_EQ(status.st_gid, owner) << made;
  }
  EXPECT_EQ(get("key"), "1\n");
}

TEST_F(Prefs, AFolderThatCannotBeMadeIsAFailure) {
  root.write("var/lib/corvidd", "a file in its place");
  const ToolResult result = prefs({"set", "key", "1"});
  EXPECT_EQ(result.status, 1);
  EXPECT_NE(result.errors.find("FilePreferences: cannot lock "), std::string::npos)
      << result.errors;
}

}  // namespace
}  // namespace corvid
