// What must go on working inside the sandbox.
#include <dlfcn.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <link.h>
#include <netdb.h>
#include <netinet/in.h>
#include <poll.h>
#include <pwd.h>
#include <resolv.h>
#include <signal.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/timerfd.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <future>
#include <thread>
#include <utility>

#ifdef __SANITIZE_ADDRESS__
#include <sanitizer/lsan_interface.h>
#endif

#include "base/Descriptor.h"
#include "base/UnixAddress.h"
#include "platform/data/LocalFileSystem.h"
#include "platform/network/SystemNetwork.h"
#include "platform/system/Entitlements.h"
#include "platform/system/JournalPowerLog.h"
#include "platform/system/SystemClock.h"
#include "platform/system/SystemDeviceInformation.h"
#include "platform/system/SystemLocale.h"
#include "platform/system/SystemLog.h"
#include "tests/fakes/FakeJournal.h"
#include "tests/platform/system/SandboxFixture.h"
#include "tests/support/Loopback.h"

namespace corvid {
namespace {

class SandboxAllows : public SandboxFixture {};

template <class Address>
const sockaddr* generic(const Address& address) {
  return reinterpret_cast<const sockaddr*>(&address);
}

TEST_F(SandboxAllows, Threads) {
  EXPECT_EQ(inSandbox([] {
              int sum = 0;
              std::thread([&] { std::thread([&] { sum = 42; }).join(); }).join();
              return sum;
            }),
            42);
}

TEST_F(SandboxAllows, TheProcessToEndByItsOwnSignal) {
  EXPECT_EQ(inSandbox([] {
              signal(SIGABRT, SIG_DFL);
              std::abort();
              return 0;
            }),
            -SIGABRT);
}

TEST_F(SandboxAllows, PreferencesToBeRewritten) {
  EXPECT_EQ(
      inSandbox([&] {
        namespace fs = std::filesystem;
        std::error_code error;
        fs::create_directories(paths.preferencesFolder, error);
        if (error) return 1;
        const std::string file = paths.preferencesFolder + "/suite.plist";
        const std::string draft = file + ".new";
        for (const char* text : {"one", "two"}) {
          const Descriptor output(open(draft.c_str(), O_CREAT | O_TRUNC | O_WRONLY, 0600));
          if (write(output.get(), text, 3) != 3 || fsync(output.get()) != 0) return 2;
          if (rename(draft.c_str(), file.c_str()) != 0) return 3;
          const Descriptor folder(open(paths.preferencesFolder.c_str(), O_RDONLY | O_DIRECTORY));
          if (fsync(folder.get()) != 0) return 4;
          if (readRegularFile(file).value() != text) return 5;
        }
        return unlink(file.c_str()) == 0 && rmdir(paths.preferencesFolder.c_str()) == 0 ? 0 : 6;
      }),
      0);
}

TEST_F(SandboxAllows, TheServiceSocketToBeMadeAndClientsToBeIdentified) {
  EXPECT_EQ(inSandbox([&] {
              const UnixAddress address(paths.socket);
              for (int round = 0; round < 2; ++round) {  // the second replaces a stale file
                unlink(paths.socket.c_str());
                const Descriptor listener(socket(AF_UNIX, SOCK_STREAM, 0));
                if (address.bind(listener.get()) != 0) return 1;
                if (chmod(paths.socket.c_str(), 0666) != 0) return 2;
                if (listen(listener.get(), 4) != 0) return 3;
                const Descriptor client(socket(AF_UNIX, SOCK_STREAM, 0));
                if (address.connect(client.get()) != 0) return 4;
                const Descriptor accepted(accept4(listener.get(), nullptr, nullptr, SOCK_CLOEXEC));
                const auto peer = peerIdentity(accepted.get());
                if (!peer || peer.value().pid != getpid()) return 5;
              }
              return 0;
            }),
            0);
}

TEST_F(SandboxAllows, ControlGroupsOfOtherProcessesToBeRead) {
  const std::string file = "/proc/" + std::to_string(getpid()) + "/cgroup";
  const auto outside = readRegularFile(file);
  ASSERT_TRUE(outside);
  EXPECT_EQ(inSandbox([&] {
              const auto inside = readRegularFile(file);
              return inside && inside.value() == outside.value() ? 0 : 1;
            }),
            0);
}

TEST_F(SandboxAllows, EntitlementsToBeReadAndUsersToBeLookedUp) {
  root.write("etc/corvid/entitlements.d/a.plist",
             "<plist><dict><key>match</key><dict><key>user</key><string>root</string></dict>"
             "<key>entitlements</key><dict><key>a</key><true/></dict></dict></plist>");
  EXPECT_EQ(inSandbox([&] {
              return Entitlements(paths.entitlementsFolder)
                  .entitlementsForPeer(PeerIdentity{})
                  .contains("a");
            }),
            1);
}

TEST_F(SandboxAllows, DeviceAndLocaleToBeAsked) {
  root.write("etc/corvid/device.plist",
             "<plist><dict><key>ProductType</key><string>Robin5,2</string></dict></plist>");
  root.write("etc/locale.conf", "LANG=pt_BR.UTF-8\n");
  root.write("etc/os-release", "NAME=\"Birch OS\"\nVERSION_ID=12\n");
  const auto identifier = SystemDeviceInformation("").answer("UniqueDeviceID");
  root.write("etc/machine-info", "HARDWARE_MODEL=Slate\n");
  root.write("sys/class/dmi/id/product_family", "Slates\n");
  root.write("sys/firmware/devicetree/base/serial-number", "0042");
  const TimeValue now{1'720'000'000, 0};
  const std::int32_t offset = SystemLocale("").secondsFromGMT(now);
  EXPECT_EQ(inSandbox([&] {
              SystemDeviceInformation device(paths.deviceFile, paths.root);
              if (device.answer("ProductType").value != "Robin5,2") return 1;
              if (device.answer("ProductVersion").value != "12") return 2;
              if (device.answer("UniqueDeviceID") != identifier) return 3;
              if (device.answer("DeviceName").value != "Slates") return 6;
              if (device.answer("SerialNumber").value != "0042") return 7;
              SystemDeviceInformation other("", paths.root);
              if (other.answer("ProductType").value != "Slate") return 8;
              for (const char* name : {"LC_ALL", "LC_MESSAGES", "LANG"}) unsetenv(name);
              SystemLocale locale(paths.localeFile);
              if (locale.countryCode() != "BR") return 4;
              return locale.secondsFromGMT(now) == offset ? 0 : 5;
            }),
            0);
}

TEST_F(SandboxAllows, TimeZonesToBeRead) {
  if (!std::filesystem::exists("/usr/share/zoneinfo/Asia/Tokyo"))
    GTEST_SKIP() << "no time zones installed";
  EXPECT_EQ(inSandbox([] {
              setenv("TZ", "Asia/Tokyo", 1);
              return SystemLocale("").secondsFromGMT({}) / 3600;
            }),
            9);
}

TEST_F(SandboxAllows, CertificatesToBeRead) {
  deployment.caFile = root.write("lab/ca.pem", "certificate");
  const bool hasSystemCertificates = std::filesystem::exists("/etc/ssl/certs/ca-certificates.crt");
  EXPECT_EQ(inSandbox([&] {
              if (!readRegularFile(*deployment.caFile)) return 1;
              if (!hasSystemCertificates) return 0;
              return readRegularFile("/etc/ssl/certs/ca-certificates.crt") ? 0 : 2;
            }),
            0);
}

TEST_F(SandboxAllows, TCPConnections) {
  const BoundSocket listener = listenOnLoopback();
  const sockaddr_in address = loopbackAddress(listener.port);
  EXPECT_EQ(inSandbox([&] {
              const Descriptor client(socket(AF_INET, SOCK_STREAM, IPPROTO_TCP));
              return errorOf(connect(client.get(), generic(address), sizeof address));
            }),
            0);
}

TEST_F(SandboxAllows, Datagrams) {
  EXPECT_EQ(inSandbox([] {
              const BoundSocket server = bindOnLoopback(SOCK_DGRAM);
              const Descriptor client = connectOnLoopback(server.port, SOCK_DGRAM);
              if (!client) return 1;
              if (send(client.get(), "packet", 6, 0) != 6) return 2;
              char packet[16];
              return recv(server.socket.get(), packet, sizeof packet, 0) == 6 ? 0 : 3;
            }),
            0);
}

// The rest of what stays open, as docs/security.md says.
TEST_F(SandboxAllows, DatagramPortsToBeBound) {
  EXPECT_EQ(inSandbox([] {
              const sockaddr_in address = loopbackAddress(0);
              const Descriptor bound(socket(AF_INET, SOCK_DGRAM, 0));
              return errorOf(bind(bound.get(), generic(address), sizeof address));
            }),
            0);
}

TEST_F(SandboxAllows, UnixSocketsOfOthersToBeReachedAsTheirModesSay) {
  const UnixAddress address(root.path("service"));
  const Descriptor service(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  ASSERT_EQ(address.bind(service.get()), 0);
  ASSERT_EQ(listen(service.get(), 1), 0);
  EXPECT_EQ(inSandbox([&] {
              const Descriptor client(socket(AF_UNIX, SOCK_STREAM, 0));
              return errorOf(address.connect(client.get()));
            }),
            0);
}

TEST_F(SandboxAllows, CommandLinesOfOtherProcessesToBeRead) {
  const std::string parent = "/proc/" + std::to_string(getpid());
  EXPECT_EQ(inSandbox([&] { return readRegularFile(parent + "/cmdline").value().empty(); }), 0);
}

TEST_F(SandboxAllows, TheNetworkThreadToSendAndToBeAnswered) {
  EXPECT_EQ(inSandbox([] {
              const BoundSocket server = bindOnLoopback(SOCK_DGRAM);
              SystemNetwork network(std::make_shared<SystemClock>());
              const auto queue = network.createQueue("sandboxed");
              const auto socket = std::move(network.openDatagramSocket()).value();
              if (socket->bindToAnyPort() != 0) return 1;
              if (socket->connect(INADDR_LOOPBACK, server.port) != 0) return 2;
              std::promise<bool> answered;
              const auto source = queue->createReadSource(
                  *socket,
                  [&] {
                    char answer[16];
                    answered.set_value(socket->receive(answer) == 6u);
                  },
                  nullptr);
              const auto timer = queue->createTimer(
                  std::chrono::milliseconds(1), [&] { socket->send("packet"); }, nullptr);
              timer->setArmed(true);
              char packet[16];
              sockaddr_in from{};
              socklen_t size = sizeof from;
              auto* const client = reinterpret_cast<sockaddr*>(&from);
              if (recvfrom(server.socket.get(), packet, sizeof packet, 0, client, &size) != 6)
                return 3;
              timer->setArmed(false);
              if (sendto(server.socket.get(), packet, 6, 0, client, size) != 6) return 4;
              auto outcome = answered.get_future();
              if (outcome.wait_for(std::chrono::seconds(10)) != std::future_status::ready) return 5;
              return outcome.get() ? 0 : 6;
            }),
            0);
}

TEST_F(SandboxAllows, TheLogToReachAJournalThatHasComeBack) {
  const std::string path = root.path("log");
  std::optional<FakeJournal> journal(std::in_place, path);
  const auto sink = openSystemLog("corvidd", LogDestination::syslog, path);
  journal.reset();
  journal.emplace(path);
  EXPECT_EQ(inSandbox([&] {
              sink->write(LogLevel::info, "text");
              return 0;
            }),
            0);
  const auto entry = journal->take();
  ASSERT_TRUE(entry);
  EXPECT_EQ(entry->at("MESSAGE"), "text");
}

TEST_F(SandboxAllows, ThePowerLogToReachTheJournal) {
  namespace fs = std::filesystem;
  fs::create_directories(fs::path(paths.journalSocket).parent_path());
  const Descriptor journal(socket(AF_UNIX, SOCK_DGRAM | SOCK_NONBLOCK, 0));
  ASSERT_EQ(UnixAddress(paths.journalSocket).bind(journal.get()), 0);
  EXPECT_EQ(
      inSandbox([&] {
        JournalPowerLog(paths.journalSocket).logRegisteredEvent(28, "Cobaltd-CVD", {{"method", 7}});
        return 0;
      }),
      0);
  char entry[1024];
  const ssize_t size = recv(journal.get(), entry, sizeof entry, 0);
  ASSERT_GT(size, 0) << std::strerror(errno);
  EXPECT_EQ(std::string_view(entry, static_cast<std::size_t>(size)),
            "MESSAGE=Cobaltd-CVD\nPRIORITY=6\nSYSLOG_IDENTIFIER=corvidd\nCORVID_SUBSYSTEM=28\n"
            "CORVID_EVENT_NAME=Cobaltd-CVD\nCORVID_METHOD=7\n");
}

TEST_F(SandboxAllows, Waiting) {
  EXPECT_EQ(inSandbox([] {
              const Descriptor queue(epoll_create1(EPOLL_CLOEXEC));
              const Descriptor event(eventfd(0, EFD_CLOEXEC));
              const Descriptor timer(timerfd_create(CLOCK_MONOTONIC, TFD_CLOEXEC));
              const itimerspec soon{{0, 0}, {0, 1}};
              if (timerfd_settime(timer.get(), 0, &soon, nullptr) != 0) return 1;
              if (eventfd_write(event.get(), 1) != 0) return 2;
              for (const int descriptor : {event.get(), timer.get()}) {
                epoll_event wanted{};
                wanted.events = EPOLLIN;
                if (epoll_ctl(queue.get(), EPOLL_CTL_ADD, descriptor, &wanted) != 0) return 3;
              }
              epoll_event ready[2];
              return epoll_wait(queue.get(), ready, 2, 10'000) > 0 ? 0 : 4;
            }),
            0);
}

// The file of a library that comes with the C library and that nobody has loaded.
std::string unloadedLibrary() {
  void* const handle = dlopen("libnss_compat.so.2", RTLD_NOW);
  if (handle == nullptr) return {};
  link_map* map = nullptr;
  std::string file;
  if (dlinfo(handle, RTLD_DI_LINKMAP, &map) == 0) file = map->l_name;
  dlclose(handle);
  return file;
}

TEST_F(SandboxAllows, LibrariesAndTheBundleToBeLoaded) {
  std::string library;
  ASSERT_EQ(inChild([&] { return unloadedLibrary().empty(); }), 0);
  std::filesystem::create_directories(std::filesystem::path(paths.performanceBundle).parent_path());
  EXPECT_EQ(inChild([&] {
              std::filesystem::copy_file(unloadedLibrary(), paths.performanceBundle);
              if (sandboxInit(profileName, paths)) return notEntered;
              if (dlopen(paths.performanceBundle.c_str(), RTLD_NOW) == nullptr) return 1;
              return dlopen("libanl.so.1", RTLD_NOW) == nullptr ? 2 : 0;
            }),
            0);
}

// Which is why the unit mounts it without the right to execute.
TEST_F(SandboxAllows, AFileOfItsHomeToBeLoaded) {
  EXPECT_EQ(inChild([&] {
              const std::string content = contentOf(unloadedLibrary());
              if (sandboxInit(profileName, paths)) return notEntered;
              const std::string copy = paths.home + "/copy.so";
              const Descriptor output(open(copy.c_str(), O_CREAT | O_WRONLY, 0600));
              if (write(output.get(), content.data(), content.size()) < 0) return 1;
              return dlopen(copy.c_str(), RTLD_NOW) == nullptr ? 2 : 0;
            }),
            0);
}

int lookUp(const char* name, sockaddr_in& found) {
  addrinfo hints{};
  hints.ai_family = AF_INET;
  hints.ai_socktype = SOCK_STREAM;
  addrinfo* list = nullptr;
  const int error = getaddrinfo(name, "443", &hints, &list);
  if (error != 0) return error;
  std::memcpy(&found, list->ai_addr, sizeof found);
  freeaddrinfo(list);
  return 0;
}

TEST_F(SandboxAllows, TheLocalHostToBeLookedUp) {
  EXPECT_EQ(inSandbox([] {
              sockaddr_in found{};
              if (lookUp("localhost", found) != 0) return 1;
              return found.sin_addr.s_addr == htonl(INADDR_LOOPBACK) ? 0 : 2;
            }),
            0);
}

// Answers queries: "known.test" is 127.0.0.7, anything else does not exist. Ends with the process.
void serveNames(int server) {
  for (;;) {
    unsigned char packet[512];
    sockaddr_in client{};
    socklen_t size = sizeof client;
    const ssize_t received = recvfrom(server, packet, sizeof packet - 16, 0,
                                      reinterpret_cast<sockaddr*>(&client), &size);
    if (received < 12) continue;
    auto length = static_cast<std::size_t>(received);
    const bool isKnown = std::memcmp(packet + 12, "\5known\4test", 11) == 0;
    packet[2] = 0x81;
    packet[3] = isKnown ? 0x80 : 0x83;
    packet[7] = isKnown;
    packet[11] = 0;
    if (isKnown) {
      constexpr char answer[] = "\xc0\x0c\0\1\0\1\0\0\0\0\0\4\x7f\0\0\7";
      std::memcpy(packet + length, answer, sizeof answer - 1);
      length += sizeof answer - 1;
    }
    sendto(server, packet, length, 0, generic(client), size);
  }
}

TEST_F(SandboxAllows, NamesToBeLookedUpWithAServer) {
  EXPECT_EQ(
      inSandbox([] {
        BoundSocket server = bindOnLoopback(SOCK_DGRAM);
        std::thread([descriptor = server.socket.release()] { serveNames(descriptor); }).detach();
        if (res_init() != 0) return 1;
        _res.nscount = 1;
        _res.nsaddr_list[0] = loopbackAddress(server.port);
        _res.dnsrch[0] = nullptr;
        sockaddr_in found{};
        if (lookUp("known.test", found) != 0) return 2;
        if (found.sin_addr.s_addr != htonl(0x7f000007)) return 3;
        return lookUp("unknown.test", found) == EAI_NONAME ? 0 : 4;
      }),
      0);
}

#ifdef __SANITIZE_ADDRESS__
TEST_F(SandboxAllows, TheSanitizerToSearchForLeaks) {
  EXPECT_EQ(inSandbox([] {
              std::thread([] { [[maybe_unused]] int* volatile lost = new int[100]; }).join();
              return __lsan_do_recoverable_leak_check() != 0 ? 0 : 1;
            }),
            0);
}
#endif

}  // namespace
}  // namespace corvid
