// `corvidd --check-config` below a whole root: its advice is run by a shell as it is printed, and
// what is left is nothing wrong.
#include <fcntl.h>
#include <fmt/format.h>
#include <gtest/gtest.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <filesystem>
#include <functional>
#include <string>
#include <vector>

#include "base/Descriptor.h"
#include "base/Reading.h"
#include "platform/data/JSON.h"
#include "platform/data/PropertyList.h"
#include "tests/support/ChildProcess.h"
#include "tests/support/Scratch.h"
#include "tests/support/SigningKeys.h"
#include "tests/support/ToolProcess.h"

namespace corvid {
namespace {

namespace fs = std::filesystem;

class ConfigAdvice : public testing::Test {
 protected:
  ConfigAdvice() {
    for (const char* name : {"LC_ALL", "LC_MESSAGES", "LANG", "TZ"}) unsetenv(name);
    setenv("HOME", home.path().c_str(), 1);
    writeList("etc/corvid/deployment.plist",
              {{"ProductionStorebagHost", "bags.example"}, {"CAFile", root.path("etc/ca.pem")}});
    root.write("etc/ca.pem", "-----BEGIN CERTIFICATE-----\n");
    writeList("etc/corvid/device.plist", {{"DeviceName", "Robin"}});
    writeList("usr/share/corvid/Info.plist", {{"BundleVersion", "8.1"}});
    writeList("var/lib/corvidd/Preferences/com.halcyon.diagnostics.plist",
              {{"SubmitDiagnostics", true}});
    root.write("etc/locale.conf", "LANG=de_DE.UTF-8\n");
    root.write("etc/os-release", "NAME=Birch\nVERSION_ID=3\n");
    root.entitleThisUser();
    shell(fmt::format("openssl pkey -in {} -pubout -outform DER -out '{}'",
                      signingKeyFile("trusted"), root.write("usr/share/corvid/publicKey.der", "")));
  }
  void writeList(std::string_view path, const Dictionary& content) const {
    root.write(path, writeXMLPropertyList(content));
  }
  static void shell(const std::string& command) {
    const ToolResult result = runTool("/bin/sh", {"-c", command});
    EXPECT_EQ(result.status, 0) << command << "\n" << result.errors;
  }
  ToolResult check(std::vector<std::string> more = {}) const {
    std::vector<std::string> arguments{"--root", root.path(), "--check-config"};
    arguments.insert(arguments.end(), more.begin(), more.end());
    return runTool(CORVIDD_PROGRAM, arguments);
  }
  // One round: runs the commands of what is wrong. How many there were.
  std::size_t follow() const {
    const ToolResult result = check({"--json"});
    const auto found = parseJSON(result.output);
    if (!found) {
      ADD_FAILURE() << result.output << result.errors;
      return 0;
    }
    std::size_t followed = 0;
    for (const Value& one : *arrayAt(*found.value().dictionary(), "findings")) {
      const std::string* command = stringAt(*one.dictionary(), "command");
      if (!command || *stringAt(*one.dictionary(), "kind") != "WRONG") continue;
      shell(*command);
      ++followed;
    }
    return followed;
  }
  // Some faults are seen only when others are mended.
  void followAllAdvice() const {
    EXPECT_EQ(check().status, 1) << "nothing is wrong";
    constexpr int mostRounds = 4;
    int rounds = 0;
    while (follow() > 0 && ++rounds < mostRounds) {
    }
    const ToolResult after = check();
    EXPECT_EQ(after.status, 0) << after.output;
    EXPECT_EQ(after.output.find("WRONG"), std::string::npos) << after.output;
    EXPECT_NE(after.output.find("\n0 wrong, "), std::string::npos) << after.output;
  }

  ScratchRoot root;
  ScratchFolder home;
};

TEST_F(ConfigAdvice, NothingIsWrongWithASoundRoot) {
  const ToolResult result = check();
  EXPECT_EQ(result.status, 0) << result.output;
  EXPECT_TRUE(result.output.ends_with("\n0 wrong, 0 notes\n")) << result.output;
}

TEST_F(ConfigAdvice, LeadsFromAnyKeyFileToOneThatIsRight) {
  const std::string key = root.path("usr/share/corvid/publicKey.der");
  const std::string pair = signingKeyFile("trusted");
  for (const std::string& spoil :
       {"rm " + key, "echo garbage > " + key,
        fmt::format("openssl pkey -in {} -pubout -out {}", pair, key),
        fmt::format("cp {} {}", pair, key),
        fmt::format("openssl pkey -in {} -outform DER -out {}", pair, key),
        fmt::format("openssl genrsa 1024 | openssl rsa -pubout -outform DER -out {}", key),
        fmt::format("openssl genpkey -algorithm EC -pkeyopt ec_paramgen_curve:P-256 | openssl pkey "
                    "-pubout -outform DER -out {}",
                    key)}) {
    SCOPED_TRACE(spoil);
    fs::remove_all(home.path() + "/corvid-signing");
    shell(spoil);
    followAllAdvice();
    // What is private is in no folder that others can read.
    shell(fmt::format("! grep -rl 'PRIVATE KEY' {}", root.path()));
    EXPECT_LT(fs::file_size(key), 1000u);
    std::error_code none;
    for (const auto& entry : fs::directory_iterator(home.path() + "/corvid-signing", none)) {
      struct stat status {};
      ASSERT_EQ(stat(entry.path().c_str(), &status), 0);
      EXPECT_EQ(status.st_mode & 0777, 0600u) << entry.path();
    }
  }
}

TEST_F(ConfigAdvice, NeverOverwritesAPrivateKey) {
  const std::string key = root.path("usr/share/corvid/publicKey.der");
  shell("mkdir -p ~/corvid-signing && cp " + signingKeyFile("trusted") +
        " ~/corvid-signing/private.pem");
  const std::string before = contentOf(key);
  fs::remove(key);
  followAllAdvice();
  EXPECT_EQ(contentOf(key), before);
}

TEST_F(ConfigAdvice, LeadsToFilesThatTheDaemonMayReadAndNobodyElseWrites) {
  for (const std::string_view path :
       {"etc/corvid/deployment.plist", "etc/corvid/device.plist", "etc/corvid/entitlements.d",
        "etc/corvid/entitlements.d/test.plist", "usr/share/corvid/publicKey.der", "etc/ca.pem",
        "usr/share/corvid/Info.plist", "usr/share/corvid/sandbox/com.halcyon.corvidd.plist",
        "etc/corvid", "usr/share", "var/lib/corvidd/Preferences",
        "var/lib/corvidd/Preferences/com.halcyon.diagnostics.plist"})
    for (const mode_t mode : {0U, 0777U}) {
      SCOPED_TRACE(fmt::format("{} {:o}", path, mode));
      ASSERT_EQ(chmod(root.path(path).c_str(), mode), 0);
      followAllAdvice();
    }
}

TEST_F(ConfigAdvice, MendsMisspeltKeysAndHosts) {
  writeList(
      "etc/corvid/deployment.plist",
      {{"ProductionStoreBagHost", "https://bags.example:8443/bags"}, {"ConsentisLive", true}});
  writeList("etc/corvid/device.plist", {{"Devicename", "Robin"}});
  writeList("etc/corvid/entitlements.d/test.plist",
            {{"match", Dictionary{{"user", "root"}}},
             {"entitlement", Dictionary{{"com.halcyon.private.corvid", true}}}});
  followAllAdvice();
  const auto settings = readDictionaryFile(root.path("etc/corvid/deployment.plist"));
  ASSERT_TRUE(settings);
  EXPECT_EQ(*stringAt(settings.value(), "ProductionStorebagHost"), "bags.example:8443");
}

TEST_F(ConfigAdvice, EntitlesSomebodyWhereNobodyIs) {
  root.remove("etc/corvid/entitlements.d");
  followAllAdvice();
}

TEST_F(ConfigAdvice, RenamesAFileThatWasMeantAndTakesAwayOneThatWasNot) {
  const std::string list = contentOf(root.path("etc/corvid/entitlements.d/test.plist"));
  root.remove("etc/corvid/entitlements.d/test.plist");
  root.write("etc/corvid/entitlements.d/app's list.conf", list);
  root.write("etc/corvid/entitlements.d/old.plist~", list);
  followAllAdvice();
  EXPECT_TRUE(fs::exists(root.path("etc/corvid/entitlements.d/app's list.plist")));
  EXPECT_TRUE(fs::exists(root.path("etc/corvid/old.plist~")));
}

TEST_F(ConfigAdvice, ClearsPreferencesThatNobodyReads) {
  const std::string folder = "var/lib/corvidd/Preferences/";
  writeList(folder + "com.halcyon.corvid.plist", {{"environmentType", 9}, {"colour's", "red"}});
  writeList(folder + "org.example.plist", {{"a", 1}});
  root.write(folder + "com.halcyon.timed.plist", "<plist><dict>");
  root.write(folder + "com.halcyon.corvid.xml", "");
  followAllAdvice();
}

TEST_F(ConfigAdvice, GivesTheConsentThatANoteAsksAfter) {
  root.remove("var/lib/corvidd/Preferences/com.halcyon.diagnostics.plist");
  const auto found = parseJSON(check({"--json"}).output);
  ASSERT_TRUE(found);
  EXPECT_EQ(integerAt(*found.value().dictionary(), "notes"), 1);
  for (const Value& one : *arrayAt(*found.value().dictionary(), "findings"))
    if (*stringAt(*one.dictionary(), "kind") == "note")
      shell(*stringAt(*one.dictionary(), "command"));
  EXPECT_NE(check().output.find("consent is true (preference)"), std::string::npos);
}

TEST_F(ConfigAdvice, ChecksAsTheOwnerOfTheDaemonsFolder) {
  if (geteuid() != 0) GTEST_SKIP() << "only root can look as somebody else";
  chmod(root.path().c_str(), 0755);
  ASSERT_EQ(chown(root.path("var/lib/corvidd").c_str(), 4711, 4711), 0);
  ASSERT_EQ(chmod(root.path("etc/corvid/deployment.plist").c_str(), 0600), 0);
  const ToolResult result = check();
  EXPECT_NE(result.output.find("deployment.plist: user 4711 may not read it"), std::string::npos)
      << result.output;
  followAllAdvice();
}

// As the filter around a container does.
void refuseLandlock(unsigned error) {
  sock_filter program[] = {
      BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
      BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, SYS_landlock_create_ruleset, 0, 1),
      BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ERRNO | error),
      BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
  };
  const sock_fprog filter{std::size(program), program};
  prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0);
  prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &filter);
}

TEST_F(ConfigAdvice, TellsAKernelWithoutLandlockFromAContainerThatForbidsIt) {
  const auto found = [&](unsigned error, const char* sandbox) {
    const Descriptor output(open(root.write("found", "").c_str(), O_WRONLY | O_TRUNC | O_CLOEXEC));
    ChildProcess check({.command = {CORVIDD_PROGRAM, "--root", root.path(), "--check-config",
                                    "--sandbox", sandbox},
                        .streams = {0, output.get(), 2},
                        .prepare = [=] { refuseLandlock(error); }});
    EXPECT_TRUE(check.waitForExit());
    return contentOf(root.path("found"));
  };
  EXPECT_TRUE(
      found(EPERM, "enforce").starts_with("WRONG kernel: Landlock is forbidden from outside: "));
  EXPECT_TRUE(found(EOPNOTSUPP, "enforce")
                  .starts_with("WRONG kernel: the kernel's Landlock is switched off"));
  EXPECT_TRUE(
      found(EPERM, "off").starts_with("note  kernel: Landlock is forbidden from outside: "));
}

TEST_F(ConfigAdvice, JSONNeedsTheCheck) {
  EXPECT_EQ(runTool(CORVIDD_PROGRAM, {"--root", root.path(), "--json"}).status, 64);
}

}  // namespace
}  // namespace corvid
