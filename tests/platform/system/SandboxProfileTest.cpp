#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <seccomp.h>

#include "platform/system/SandboxProfile.h"
#include "tests/support/Scratch.h"

namespace corvid {
namespace {

using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;

const SandboxProfile::Placeholders placeholders = {
    {"root", "/tmp/root"}, {"caFile", ""}, {"name", "x"}};

Dictionary smallest() { return {{"systemCalls", Array{"read"}}}; }

Result<SandboxProfile> profileWith(std::string key, Value value) {
  Dictionary dictionary = smallest();
  dictionary.set(std::move(key), std::move(value));
  return SandboxProfile::fromDictionary(dictionary, placeholders);
}

std::string refusal(std::string key, Value value) {
  const auto profile = profileWith(std::move(key), std::move(value));
  return profile ? "(taken)" : profile.failure().message;
}

TEST(SandboxProfile, AllowsNothingThatItDoesNotName) {
  const auto profile = SandboxProfile::fromDictionary(smallest(), {});
  ASSERT_TRUE(profile);
  EXPECT_THAT(profile.value().readOnlyPaths, IsEmpty());
  EXPECT_THAT(profile.value().readWritePaths, IsEmpty());
  EXPECT_EQ(profile.value().socketFolder, "");
  EXPECT_FALSE(profile.value().allowsTCPConnect);
  EXPECT_FALSE(profile.value().allowsUDP);
  EXPECT_THAT(profile.value().systemCalls, ElementsAre("read"));
  EXPECT_THAT(profile.value().absentSystemCalls, IsEmpty());
}

TEST(SandboxProfile, TakesEachOfItsKeys) {
  const Dictionary network{{"tcpConnect", true}, {"udp", false}};
  const auto profile =
      SandboxProfile::fromDictionary(Dictionary{{"readOnlyPaths", Array{"/a", "${root}/b"}},
                                                {"readWritePaths", Array{"${root}/var"}},
                                                {"socketFolder", "${root}/run"},
                                                {"network", network},
                                                {"systemCalls", Array{"read", "write"}},
                                                {"absentSystemCalls", Array{"clone3"}}},
                                     placeholders);
  ASSERT_TRUE(profile);
  EXPECT_THAT(profile.value().readOnlyPaths, ElementsAre("/a", "/tmp/root/b"));
  EXPECT_THAT(profile.value().readWritePaths, ElementsAre("/tmp/root/var"));
  EXPECT_EQ(profile.value().socketFolder, "/tmp/root/run");
  EXPECT_TRUE(profile.value().allowsTCPConnect);
  EXPECT_FALSE(profile.value().allowsUDP);
  EXPECT_THAT(profile.value().systemCalls, ElementsAre("read", "write"));
  EXPECT_THAT(profile.value().absentSystemCalls, ElementsAre("clone3"));
}

TEST(SandboxProfile, PutsPlaceholdersIntoItsPaths) {
  const auto profile =
      profileWith("readOnlyPaths", Array{"${root}", "/a/${name}/${name}.b", "${caFile}", "/$x"});
  ASSERT_TRUE(profile);
  EXPECT_THAT(profile.value().readOnlyPaths, ElementsAre("/tmp/root", "/a/x/x.b", "/$x"));
}

TEST(SandboxProfile, WithAnUnknownKeyIsRefused) {
  EXPECT_EQ(refusal("readPaths", Array{}), "unknown key 'readPaths'");
  EXPECT_EQ(refusal("network", Dictionary{{"bind", true}}), "'network' has an unknown key 'bind'");
}

TEST(SandboxProfile, WithAValueOfAnotherTypeIsRefused) {
  EXPECT_EQ(refusal("readOnlyPaths", "/a"),
            "the value of 'readOnlyPaths' is not an array of texts");
  EXPECT_EQ(refusal("readWritePaths", Array{"/a", 5}),
            "the value of 'readWritePaths' is not an array of texts");
  EXPECT_EQ(refusal("readOnlyPaths", Array{""}),
            "the value of 'readOnlyPaths' is not an array of texts");
  EXPECT_EQ(refusal("systemCalls", true), "the value of 'systemCalls' is not an array of texts");
  EXPECT_EQ(refusal("socketFolder", 1), "the value of 'socketFolder' is not a text");
  EXPECT_EQ(refusal("network", true), "the value of 'network' is not a dictionary");
  EXPECT_EQ(refusal("network", Dictionary{{"udp", 1}}), "the value of 'udp' is not a boolean");
}

TEST(SandboxProfile, WithoutSystemCallsIsRefused) {
  const auto none = SandboxProfile::fromDictionary(Dictionary{}, placeholders);
  ASSERT_FALSE(none);
  EXPECT_EQ(none.failure().message, "'systemCalls' is missing or empty");
  EXPECT_EQ(refusal("systemCalls", Array{}), "'systemCalls' is missing or empty");
}

TEST(SandboxProfile, WithARelativePathOrAnUnknownPlaceholderIsRefused) {
  EXPECT_EQ(refusal("readOnlyPaths", Array{"etc"}),
            "the path 'etc' of 'readOnlyPaths' is not absolute");
  EXPECT_EQ(refusal("socketFolder", "run"), "the path 'run' of 'socketFolder' is not absolute");
  for (const std::string path : {"${home}/x", "/${", "/a${root"})
    EXPECT_EQ(refusal("readOnlyPaths", Array{path}),
              "the path '" + path + "' of 'readOnlyPaths' has an unknown placeholder");
}

TEST(SandboxProfile, IsReadFromItsFile) {
  const ScratchFolder scratch;
  const auto profile = SandboxProfile::fromFile(
      scratch.write("p.plist",
                    "<plist version=\"1.0\"><dict><!-- Calls. --><key>systemCalls</key><array>"
                    "<!-- Reading. --><string>read</string></array></dict></plist>"),
      {});
  ASSERT_TRUE(profile) << profile.failure().message;
  EXPECT_THAT(profile.value().systemCalls, ElementsAre("read"));
  const auto empty =
      SandboxProfile::fromFile(scratch.write("q.plist", "<plist><dict/></plist>"), {});
  ASSERT_FALSE(empty);
  EXPECT_EQ(empty.failure().message,
            scratch.path() + "/q.plist: 'systemCalls' is missing or empty");
  const auto missing = SandboxProfile::fromFile(scratch.path() + "/missing", {});
  ASSERT_FALSE(missing);
  EXPECT_EQ(missing.failure().message, scratch.path() + "/missing: No such file or directory");
}

TEST(SandboxProfile, OfTheAdministratorTakesThePlaceOfTheOneThatCameWithTheSystem) {
  const ScratchFolder scratch;
  const Paths paths(scratch.path());
  const auto profileOf = [](const std::string& call) {
    return "<plist version=\"1.0\"><dict><key>systemCalls</key><array><string>" + call +
           "</string></array></dict></plist>";
  };
  scratch.write("usr/share/corvid/sandbox/x.plist", profileOf("read"));
  const auto theirs = SandboxProfile::named("x", paths, {});
  ASSERT_TRUE(theirs) << theirs.failure().message;
  EXPECT_THAT(theirs.value().systemCalls, ElementsAre("read"));

  scratch.write("etc/corvid/sandbox/x.plist", profileOf("write"));
  const auto own = SandboxProfile::named("x", paths, {});
  ASSERT_TRUE(own) << own.failure().message;
  EXPECT_THAT(own.value().systemCalls, ElementsAre("write"));

  scratch.write("etc/corvid/sandbox/x.plist", "none");
  const auto damaged = SandboxProfile::named("x", paths, {});
  ASSERT_FALSE(damaged);
  EXPECT_THAT(damaged.failure().message, HasSubstr("/etc/corvid/sandbox/x.plist"));
}

TEST(SandboxProfile, OfTheDaemonNamesNothingDangerous) {
  const auto profile = SandboxProfile::fromFile(
      CORVID_PACKAGING_FOLDER "/sandbox/com.halcyon.corvidd.plist", placeholders);
  ASSERT_TRUE(profile) << profile.failure().message;
  for (const char* call : {"execve",
                           "execveat",
                           "fork",
                           "vfork",
                           "clone3",
                           "ptrace",
                           "process_vm_readv",
                           "process_vm_writev",
                           "mount",
                           "umount2",
                           "unshare",
                           "setns",
                           "chroot",
                           "pivot_root",
                           "bpf",
                           "perf_event_open",
                           "keyctl",
                           "add_key",
                           "kexec_load",
                           "init_module",
                           "finit_module",
                           "delete_module",
                           "reboot",
                           "swapon",
                           "userfaultfd",
                           "io_uring_setup",
                           "kill",
                           "tkill",
                           "setuid",
                           "setgid",
                           "capset",
                           "chown",
                           "fchown",
                           "lchown",
                           "fchownat",
                           "fchmod",
                           "truncate",
                           "link",
                           "linkat",
                           "symlink",
                           "symlinkat",
                           "mknod",
                           "mknodat",
                           "setxattr",
                           "acct",
                           "sethostname",
                           "settimeofday",
                           "clock_settime",
                           "personality",
                           "iopl",
                           "ioperm"})
    EXPECT_THAT(profile.value().systemCalls, Not(Contains(call)));
  EXPECT_THAT(profile.value().readWritePaths, ElementsAre("/tmp/root/var/lib/corvidd"));
  EXPECT_EQ(profile.value().socketFolder, "/tmp/root/run/corvidd");
}

// What a machine of 64 bits calls so has another name where a word has 32: there with wider
// numbers, or because the plain name came first.
TEST(TheDaemonsSandboxProfile, NamesTheCallsOf32BitMachinesToo) {
  const auto profile = SandboxProfile::fromFile(
      CORVID_PACKAGING_FOLDER "/sandbox/com.halcyon.corvidd.plist", placeholders);
  ASSERT_TRUE(profile);
  const auto& allowed = profile.value().systemCalls;
  std::vector<std::pair<std::string, std::string>> twins = {{"lseek", "_llseek"},
                                                            {"select", "_newselect"},
                                                            {"getrlimit", "ugetrlimit"},
                                                            {"mmap", "mmap2"},
                                                            {"fadvise64", "fadvise64_64"},
                                                            {"fadvise64", "arm_fadvise64_64"},
                                                            {"recvfrom", "recv"},
                                                            {"newfstatat", "fstatat64"},
                                                            {"rt_sigreturn", "sigreturn"},
                                                            {"sendto", "send"},
                                                            {"clock_gettime", "clock_gettime64"}};
  for (const std::string call : {"fcntl", "fstat", "fstatfs", "ftruncate", "lstat", "stat",
                                 "statfs", "timerfd_gettime", "timerfd_settime"})
    twins.emplace_back(call, call + "64");
  for (const std::string call :
       {"getegid", "geteuid", "getgid", "getgroups", "getresgid", "getresuid", "getuid"})
    twins.emplace_back(call, call + "32");
  for (const std::string call : {"clock_getres", "clock_nanosleep", "futex", "ppoll", "pselect6",
                                 "recvmmsg", "rt_sigtimedwait"})
    twins.emplace_back(call, call + "_time64");
  for (const auto& [wide, narrow] : twins) {
    EXPECT_THAT(allowed, Contains(wide));
    EXPECT_THAT(allowed, Contains(narrow)) << "as " << wide;
  }
  for (const std::string& call : allowed) {
    if (seccomp_syscall_resolve_name_arch(SCMP_ARCH_X86_64, call.c_str()) >= 0) continue;
    EXPECT_TRUE(std::any_of(twins.begin(), twins.end(),
                            [&](const auto& pair) { return pair.second == call; }))
        << call << " is something else";
  }
}

}  // namespace
}  // namespace corvid
