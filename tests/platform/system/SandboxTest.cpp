// What the sandbox refuses, and when entering it fails.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <linux/landlock.h>
#include <netinet/in.h>
#include <poll.h>
#include <sched.h>
#include <seccomp.h>
#include <signal.h>
#include <sys/eventfd.h>
#include <sys/mman.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/ptrace.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cstddef>
#include <cstring>
#include <filesystem>
#include <functional>
#include <optional>
#include <semaphore>
#include <set>
#include <thread>

#include "base/Descriptor.h"
#include "base/UnixAddress.h"
#include "platform/system/Landlock.h"
#include "platform/system/ProcessSetup.h"
#include "platform/system/Sandbox.h"
#include "tests/platform/system/SandboxFixture.h"
#include "tests/support/ChildProcess.h"
#include "tests/support/Loopback.h"

namespace corvid {
namespace {

using testing::HasSubstr;
using testing::StartsWith;

class SandboxRefuses : public SandboxFixture {};
class SandboxFails : public SandboxFixture {};

long landlockABI() {
  return syscall(SYS_landlock_create_ruleset, nullptr, 0, LANDLOCK_CREATE_RULESET_VERSION);
}

// Makes the kernel look as if it did not have a system call.
void takeAway(const char* systemCall, int error) {
  prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0);
  const scmp_filter_ctx filter = seccomp_init(SCMP_ACT_ALLOW);
  const int number = seccomp_syscall_resolve_name(systemCall);
  ASSERT_EQ(seccomp_rule_add(filter, SCMP_ACT_ERRNO(static_cast<unsigned>(error)), number, 0), 0);
  ASSERT_EQ(seccomp_load(filter), 0);
  seccomp_release(filter);
}

int errorOfOpening(const std::string& path, int flags) {
  return errorOf(open(path.c_str(), flags, 0600));
}

TEST_F(SandboxRefuses, ToReadWhatTheProfileDoesNotName) {
  const std::string secret = root.write("secret", "x");
  EXPECT_EQ(inSandbox([&] { return errorOfOpening(secret, O_RDONLY); }), EACCES);
  EXPECT_EQ(inSandbox([] { return errorOfOpening("/etc/shadow", O_RDONLY); }), EACCES);
  EXPECT_EQ(inSandbox([] { return errorOfOpening("/root", O_RDONLY | O_DIRECTORY); }), EACCES);
  EXPECT_EQ(inSandbox([] { return errorOfOpening("/", O_RDONLY | O_DIRECTORY); }), EACCES);
}

TEST_F(SandboxRefuses, BundlesBesideTheOneThatWasThere) {
  const std::string bundle = paths.performanceBundle;
  const std::string sibling = root.write("usr/lib/corvid/Another.so", "x");
  ASSERT_EQ(root.write("usr/lib/corvid/PerformanceBundle.so", "x"), bundle);
  const Descriptor entered(eventfd(0, EFD_CLOEXEC)), replaced(eventfd(0, EFD_CLOEXEC));
  ChildProcess child([&] {
    if (sandboxInit(profileName, paths, deployment)) return notEntered;
    if (errorOfOpening(bundle, O_RDONLY) != 0) return 1;
    if (errorOfOpening(sibling, O_RDONLY) != EACCES) return 2;
    eventfd_t value;
    eventfd_write(entered.get(), 1);
    eventfd_read(replaced.get(), &value);
    return errorOfOpening(bundle, O_RDONLY) == EACCES ? 0 : 3;
  });
  pollfd waiting{entered.get(), POLLIN, 0};
  EXPECT_EQ(poll(&waiting, 1, 20'000), 1);
  std::filesystem::rename(sibling, bundle);
  eventfd_write(replaced.get(), 1);
  EXPECT_EQ(child.waitForExit(), 0);
}

TEST_F(SandboxRefuses, ToReadTheMemoryAndDescriptorsOfOthers) {
  const std::string other = "/proc/" + std::to_string(getpid());
  EXPECT_EQ(inSandbox([&] { return errorOfOpening(other + "/mem", O_RDONLY); }), EACCES);
  EXPECT_EQ(inSandbox([&] { return errorOfOpening(other + "/fd/0", O_RDONLY); }), EACCES);
  EXPECT_EQ(inSandbox([&] { return errorOfOpening(other + "/root/etc", O_RDONLY); }), EACCES);
  EXPECT_EQ(inChild([&] {
              giveUpCapabilities();  // with one the kernel lets it pass
              if (sandboxInit(profileName, paths, deployment)) return notEntered;
              return errorOfOpening(other + "/environ", O_RDONLY);
            }),
            EACCES);
}

TEST_F(SandboxRefuses, ToWriteOutsideItsFolders) {
  const std::string file = root.write("file", "x");
  const std::string settings = root.write("etc/corvid/device.plist", "x");
  EXPECT_EQ(inSandbox([&] { return errorOfOpening(file, O_WRONLY); }), EACCES);
  EXPECT_EQ(inSandbox([&] { return errorOfOpening(settings, O_WRONLY); }), EACCES);
  EXPECT_EQ(inSandbox([&] { return errorOfOpening(settings, O_RDONLY); }), 0);
  EXPECT_EQ(inSandbox([&] { return errorOfOpening(root.path() + "/new", O_CREAT | O_WRONLY); }),
            EACCES);
  EXPECT_EQ(inSandbox([] { return errorOfOpening("/tmp/corvid-new", O_CREAT | O_WRONLY); }),
            EACCES);
  EXPECT_EQ(inSandbox([&] { return errorOf(mkdir((root.path() + "/new").c_str(), 0700)); }),
            EACCES);
  EXPECT_EQ(inSandbox([&] { return errorOf(unlink(settings.c_str())); }), EACCES);
  EXPECT_EQ(
      inSandbox([&] { return errorOf(rename(settings.c_str(), (paths.home + "/taken").c_str())); }),
      EACCES);
  EXPECT_EQ(inSandbox([&] { return errorOf(truncate(file.c_str(), 0)); }), EPERM);
}

TEST_F(SandboxRefuses, LinksAndDevices) {
  const std::string link = paths.home + "/link";
  EXPECT_EQ(inSandbox([&] { return errorOf(symlink("/etc/shadow", link.c_str())); }), EPERM);
  EXPECT_EQ(inSandbox([&] { return errorOf(::link("/etc/shadow", link.c_str())); }), EPERM);
  EXPECT_EQ(inSandbox([&] { return errorOf(mknod(link.c_str(), S_IFCHR | 0600, 0)); }), EPERM);
}

TEST_F(SandboxRefuses, OtherProgramsAndProcesses) {
  EXPECT_EQ(inSandbox([] {
              const char* const arguments[] = {"true", nullptr};
              return errorOf(execve("/bin/true", const_cast<char**>(arguments), environ));
            }),
            EPERM);
  if (hasSanitizer) GTEST_SKIP() << "a sanitizer starts a process to look for leaks";
  EXPECT_EQ(inSandbox([] {
              const pid_t child = fork();
              if (child == 0) _exit(0);
              return errorOf(child);
            }),
            EPERM);
}

TEST_F(SandboxRefuses, ToReachIntoOtherProcesses) {
  const pid_t parent = getpid();
  EXPECT_EQ(inSandbox([&] { return errorOf(kill(parent, 0)); }), EPERM);
  EXPECT_EQ(inSandbox([&] { return errorOf(syscall(SYS_tgkill, parent, parent, 0)); }), EPERM);
  EXPECT_EQ(inSandbox([&] { return errorOf(ptrace(PTRACE_ATTACH, parent, nullptr, nullptr)); }),
            EPERM);
}

TEST_F(SandboxRefuses, NamespacesAndMounts) {
  EXPECT_EQ(inSandbox([] { return errorOf(unshare(CLONE_NEWUSER)); }), EPERM);
  EXPECT_EQ(inSandbox([] { return errorOf(unshare(CLONE_NEWNS)); }), EPERM);
  EXPECT_EQ(
      inSandbox([] {
        return errorOf(syscall(SYS_clone, CLONE_NEWUSER | CLONE_THREAD | CLONE_SIGHAND | CLONE_VM,
                               nullptr, nullptr, nullptr, nullptr));
      }),
      EPERM);
  EXPECT_EQ(inSandbox([&] { return errorOf(mount("", paths.home.c_str(), "tmpfs", 0, "")); }),
            EPERM);
}

TEST_F(SandboxRefuses, SocketsOfOtherKinds) {
  const auto errorOfSocket = [&](int family, int type, int protocol) {
    return inSandbox([=] { return errorOf(socket(family, type, protocol)); });
  };
  EXPECT_EQ(errorOfSocket(AF_PACKET, SOCK_RAW, 0), EPERM);
  EXPECT_EQ(errorOfSocket(AF_INET, SOCK_RAW, IPPROTO_ICMP), EPERM);
  EXPECT_EQ(errorOfSocket(AF_INET, SOCK_RAW, IPPROTO_TCP), EPERM);
  EXPECT_EQ(errorOfSocket(AF_INET, SOCK_DGRAM, IPPROTO_ICMP), EPERM);
  EXPECT_EQ(errorOfSocket(AF_INET, SOCK_STREAM, IPPROTO_MPTCP), EPERM);
  EXPECT_EQ(errorOfSocket(AF_INET6, SOCK_SEQPACKET, IPPROTO_SCTP), EPERM);
  EXPECT_EQ(errorOfSocket(AF_NETLINK, SOCK_RAW, 9 /* audit */), EPERM);
  EXPECT_EQ(errorOfSocket(AF_ALG, SOCK_SEQPACKET, 0), EPERM);
}

TEST_F(SandboxRefuses, ToBindATCPPort) {
  if (landlockABI() < 4) GTEST_SKIP() << "this kernel's Landlock knows no ports";
  EXPECT_EQ(inSandbox([] {
              sockaddr_in any{};
              any.sin_family = AF_INET;
              const int tcp = socket(AF_INET, SOCK_STREAM, 0);
              return errorOf(bind(tcp, reinterpret_cast<sockaddr*>(&any), sizeof any));
            }),
            EACCES);
}

// What `reach` gives for a listening port inside the sandbox of a deployment that names some.
class SandboxOfNamedPorts : public SandboxFixture {
 protected:
  using Reach = std::function<int(int socket, const sockaddr_in& address)>;

  std::uint16_t port() const { return _listener.port; }

  std::optional<int> errorOfReaching(const Reach& reach) {
    return inSandbox([&] { return reach(socket(AF_INET, SOCK_STREAM, 0), address); });
  }
  static int byConnecting(int socket, const sockaddr_in& to) {
    return errorOf(connect(socket, reinterpret_cast<const sockaddr*>(&to), sizeof to));
  }

  const BoundSocket _listener = listenOnLoopback();
  sockaddr_in address = loopbackAddress(port());
};

TEST_F(SandboxOfNamedPorts, RefusesToConnectToAnother) {
  if (landlockABI() < 4) GTEST_SKIP() << "this kernel's Landlock knows no ports";
  EXPECT_EQ(errorOfReaching(byConnecting), 0);
  deployment.tcpPorts = {port()};
  EXPECT_EQ(errorOfReaching(byConnecting), 0);
  deployment.tcpPorts = std::set<std::uint16_t>{};
  EXPECT_EQ(errorOfReaching(byConnecting), EACCES);
  deployment.productionStorebagHost = "127.0.0.1:" + std::to_string(port());
  EXPECT_EQ(errorOfReaching(byConnecting), 0);
}

// Nobody listens there, which is another error.
TEST_F(SandboxOfNamedPorts, LetsThePortsOfNamesAndOfHTTPSPass) {
  deployment.tcpPorts = std::set<std::uint16_t>{};
  for (const std::uint16_t usual : {std::uint16_t{53}, std::uint16_t{443}}) {
    address.sin_port = htons(usual);
    EXPECT_EQ(errorOfReaching(byConnecting), ECONNREFUSED);
  }
}

TEST_F(SandboxOfNamedPorts, RefusesToConnectWithTheFirstBytes) {
  deployment.tcpPorts = std::set<std::uint16_t>{};
  EXPECT_EQ(errorOfReaching([](int socket, const sockaddr_in& to) {
              return errorOf(sendto(socket, "x", 1, MSG_FASTOPEN,
                                    reinterpret_cast<const sockaddr*>(&to), sizeof to));
            }),
            EPERM);
  EXPECT_EQ(errorOfReaching([](int socket, sockaddr_in to) {
              iovec bytes{const_cast<char*>("x"), 1};
              msghdr message{};
              message.msg_name = &to, message.msg_namelen = sizeof to;
              message.msg_iov = &bytes, message.msg_iovlen = 1;
              return errorOf(sendmsg(socket, &message, MSG_FASTOPEN));
            }),
            EPERM);
}

TEST_F(SandboxRefuses, ToAcceptTCPOnceItIsSealedWhateverLandlockKnows) {
  for (const int family : {AF_INET, AF_INET6})
    EXPECT_EQ(inSandbox([=] {
                const int tcp = socket(family, SOCK_STREAM, 0);
                return sandboxSeal() ? 201 : errorOf(listen(tcp, 1));
              }),
              EPERM);
}

TEST_F(SandboxRefuses, MemoryThatIsWritableAndExecutable) {
  constexpr std::size_t size = 4096;
  const auto mapped = [](int protection) {
    return mmap(nullptr, size, protection, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  };
  const auto errorOfMapping = [&](int protection) {
    return inSandbox([=] { return mapped(protection) == MAP_FAILED ? errno : 0; });
  };
  EXPECT_EQ(errorOfMapping(PROT_READ | PROT_WRITE), 0);
  EXPECT_EQ(errorOfMapping(PROT_READ | PROT_EXEC), 0);
  EXPECT_EQ(errorOfMapping(PROT_WRITE | PROT_EXEC), EPERM);
  EXPECT_EQ(errorOfMapping(PROT_READ | PROT_WRITE | PROT_EXEC), EPERM);
  for (const int before : {PROT_NONE, PROT_READ | PROT_WRITE, PROT_READ | PROT_EXEC}) {
    EXPECT_EQ(
        inSandbox([=] { return errorOf(mprotect(mapped(before), size, PROT_READ | PROT_EXEC)); }),
        EPERM);
    EXPECT_EQ(inSandbox([=] {
                return errorOf(syscall(SYS_pkey_mprotect, mapped(before), size, PROT_EXEC, -1));
              }),
              EPERM);
  }
}

TEST_F(SandboxRefuses, ExecutableMemoryByTheKernelsOwnRuleToo) {
  constexpr int getRule = 66;  // PR_GET_MDWE
  if (prctl(getRule, 0, 0, 0, 0) < 0) GTEST_SKIP() << "this kernel has no such rule";
  EXPECT_EQ(inChild([&] {
              // So that the question gets through.
              takeAway("seccomp", ENOSYS);
              return sandboxInit(profileName, paths, deployment) ? prctl(getRule, 0, 0, 0, 0) : 201;
            }),
            1);
}

TEST_F(SandboxRefuses, ToMakeAUnixSocketElsewhere) {
  EXPECT_EQ(inSandbox([&] {
              const int unixSocket = socket(AF_UNIX, SOCK_STREAM, 0);
              return errorOf(UnixAddress(root.path() + "/socket").bind(unixSocket));
            }),
            EACCES);
}

TEST_F(SandboxRefuses, ToReachAbstractSocketsOutside) {
  if (landlockABI() < 6) GTEST_SKIP() << "this kernel's Landlock knows no abstract sockets";
  const UnixAddress address('\0' + ("corvid-sandbox-test-" + std::to_string(getpid())));
  const int outside = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  ASSERT_EQ(address.bind(outside), 0);
  EXPECT_EQ(inSandbox([&] { return errorOf(address.connect(socket(AF_UNIX, SOCK_DGRAM, 0))); }),
            EPERM);
  close(outside);
}

TEST_F(SandboxRefuses, InThreadsAsWell) {
  const std::string secret = root.write("secret", "x");
  EXPECT_EQ(inSandbox([&] {
              int error = 0;
              std::thread([&] { error = errorOfOpening(secret, O_RDONLY); }).join();
              return error;
            }),
            EACCES);
  EXPECT_EQ(inSandbox([] {
              int error = 0;
              std::thread([&] { error = errorOf(unshare(CLONE_NEWUSER)); }).join();
              return error;
            }),
            EPERM);
}

TEST_F(SandboxRefuses, OnceSealedToListenAndToChangeModesInEveryThread) {
  EXPECT_EQ(inSandbox([] {
              // Unbound it would get a port of its own.
              const int tcp = socket(AF_INET, SOCK_STREAM, 0);
              std::binary_semaphore isSealed{0};
              int inOlderThread = -1;
              std::thread older([&] {
                isSealed.acquire();
                inOlderThread = errorOf(listen(tcp, 1));
              });
              const auto error = sandboxSeal();
              isSealed.release();
              older.join();
              if (error) return 201;
              return inOlderThread == EPERM ? errorOf(listen(tcp, 1)) : 202;
            }),
            EPERM);
  EXPECT_EQ(
      inSandbox([&] { return sandboxSeal() ? 201 : errorOf(chmod(paths.home.c_str(), 0777)); }),
      EPERM);
}

TEST_F(SandboxRefuses, SystemCallsOfAnotherArchitecture) {
#ifdef __x86_64__
  EXPECT_EQ(inSandbox([] {
              long result = 20;  // getpid there
              asm volatile("int $0x80" : "+a"(result) : : "memory");
              return 0;
            }),
            -SIGSYS);
#else
  GTEST_SKIP() << "this architecture has no other";
#endif
}

TEST_F(SandboxFails, WithoutItsProfile) {
  EXPECT_EQ(refusalText("com.halcyon.missing"),
            "profile " + paths.sandboxFolder +
                "/com.halcyon.missing.plist: No such file or directory; install the daemon's own "
                "profile there");
}

TEST_F(SandboxFails, WithADamagedProfile) {
  root.write("usr/share/corvid/sandbox/a.plist", "<plist><dict>");
  EXPECT_THAT(refusalText("a"), StartsWith("profile " + paths.sandboxFolder + "/a.plist: "));
  root.write("usr/share/corvid/sandbox/a.plist",
             "<plist><dict><key>files</key><array/></dict></plist>");
  EXPECT_THAT(refusalText("a"), HasSubstr("/a.plist: unknown key 'files'; install"));
}

TEST_F(SandboxFails, WithASystemCallThatDoesNotExist) {
  root.write("usr/share/corvid/sandbox/a.plist",
             "<plist><dict><key>systemCalls</key><array><string>exit_group</string>"
             "<string>raed</string></array></dict></plist>");
  EXPECT_EQ(refusalText("a"), "cannot make the system-call filter: there is no system call 'raed'");
}

TEST_F(SandboxFails, WithOtherThreadsAround) {
  if (hasSanitizer) GTEST_SKIP() << "a sanitizer has a thread of its own";
  std::binary_semaphore mayEnd{0};
  std::thread other;
  EXPECT_EQ(refusalText(profileName, [&] { other = std::thread([&] { mayEnd.acquire(); }); }),
            "the process has other threads already, which would stay outside");
}

TEST_F(SandboxFails, WithoutAPlaceForItsFolders) {
  root.write("var/lib", "");
  EXPECT_EQ(refusalText(profileName), "cannot make the folder " + paths.home + ": Not a directory");
}

TEST_F(SandboxFails, OnAKernelWithoutLandlock) {
  EXPECT_EQ(
      refusalText(profileName, [] { takeAway("landlock_create_ruleset", EOPNOTSUPP); }),
      "the kernel's Landlock is switched off; put \"landlock\" among its security modules (boot "
      "parameter lsm=)");
  for (const bool filtered : {false, true})
    EXPECT_EQ(
        whyNoLandlock(ENOSYS, false, filtered),
        "the kernel offers no Landlock; it takes Linux 5.13 or later with \"landlock\" built in "
        "(CONFIG_SECURITY_LANDLOCK)");
  EXPECT_EQ(whyNoLandlock(ENOSYS, true, false), whyNoLandlock(ENOSYS, false, false));
  EXPECT_EQ(refusalText(profileName, [] { takeAway("landlock_restrict_self", EPERM); }),
            "cannot enter the Landlock rules: Operation not permitted");
}

TEST_F(SandboxFails, WhereAContainerForbidsLandlock) {
  const auto wanted = [](const std::string& error) {
    return "Landlock is forbidden from outside: " + error +
           "; let the container's or unit's system-call filter pass landlock_create_ruleset, "
           "landlock_add_rule and landlock_restrict_self";
  };
  EXPECT_EQ(refusalText(profileName, [] { takeAway("landlock_create_ruleset", EPERM); }),
            wanted("Operation not permitted"));
  EXPECT_EQ(refusalText(profileName, [] { takeAway("landlock_create_ruleset", ENOSYS); }),
            wanted("Function not implemented"));
}

TEST_F(SandboxFails, OnAKernelWithoutSeccomp) {
  EXPECT_EQ(refusalText(profileName, [] { takeAway("seccomp", ENOSYS); }),
            "cannot enter the system-call filter: Function not implemented; the kernel must have "
            "seccomp filters (CONFIG_SECCOMP_FILTER)");
}

}  // namespace
}  // namespace corvid
