#include "daemon/Daemon.h"

#include <atomic>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <utility>

#include "base/Log.h"
#include "daemon/CorviddAgent.h"
#include "daemon/DaemonControl.h"
#include "daemon/Reload.h"
#include "daemon/StatusReport.h"
#include "platform/Platform.h"
#include "platform/data/Deployment.h"
#include "platform/data/FilePreferences.h"
#include "platform/data/LocalFileSystem.h"
#include "platform/data/StoredConsent.h"
#include "platform/data/SystemRandom.h"
#include "platform/http/CurlHTTPClient.h"
#include "platform/network/SystemNetwork.h"
#include "platform/system/BundleTrial.h"
#include "platform/system/DynamicBundleLoader.h"
#include "platform/system/Entitlements.h"
#include "platform/system/FolderWatch.h"
#include "platform/system/JournalPowerLog.h"
#include "platform/system/Launcher.h"
#include "platform/system/PeerIdentity.h"
#include "platform/system/ProcessSetup.h"
#include "platform/system/Sandbox.h"
#include "platform/system/Signals.h"
#include "platform/system/SystemClock.h"
#include "platform/system/SystemDeviceInformation.h"
#include "platform/system/SystemLocale.h"
#include "platform/system/SystemLog.h"
#include "protocol/Keys.h"
#include "protocol/Limits.h"
#include "protocol/LogReason.h"
#include "rpc/ControlService.h"
#include "rpc/IPCListener.h"

namespace corvid {

namespace {

constexpr int socketFailure = 1;
constexpr int sandboxFailure = -1;
constexpr int secondSignal = 1;

constexpr std::chrono::seconds idleExitWhenSocketActivated{60};

// The process's log, from here to the end of the scope.
class Logging {
 public:
  explicit Logging(const Options& options)
      : _sink(openSystemLog("corvidd", options.log.value_or(usualLogDestination()),
                            Paths().journalSocket)) {  // the machine's, whatever the root
    installLog(_sink.get(), options.logLevel);
  }
  ~Logging() { installLog(nullptr, LogLevel::error); }
  Logging(const Logging&) = delete;
  Logging& operator=(const Logging&) = delete;

 private:
  const std::unique_ptr<LogSink> _sink;
};

// Without a usable file the defaults hold, which reach nothing.
Deployment deploymentAt(const std::string& path) {
  Result<Deployment> deployment = readDeployment(path);
  if (!deployment) {
    if (deployment.failure().code == ENOENT) return {};
    logError("main: The deployment cannot be used, so no storebag server is reached: {}",
             deployment.failure().message);
    return {};
  }
  for (const SettingFault& fault : deployment.value().faults)
    logError("main: The deployment's {} {}: {}", fault.key, fault.what, path);
  return std::move(deployment).value();
}

// Why it could not be entered.
std::optional<std::string> enterSandbox(const Options& options, const Paths& paths,
                                        const Deployment& deployment) {
  if (!options.enforcesSandbox) return std::nullopt;
  return sandboxInit(std::string(kCorvidServiceName), paths, deployment);
}

// What only setting up the listener needed. Not being able to give it up is no reason to end.
void sealSandbox(const Options& options) {
  if (!options.enforcesSandbox) return;
  if (const auto failure = sandboxSeal())
    logWarning("main: The sandbox stays unsealed: {}", *failure);
}

// Those that a reload changes.
struct Reloadable {
  std::shared_ptr<CurlHTTPClient> http;
  std::shared_ptr<SystemDeviceInformation> deviceInformation;
};

Reloadable reloadableServices(const Paths& paths, const Deployment& deployment,
                              const std::shared_ptr<Clock>& clock,
                              const std::shared_ptr<Launcher>& launcher) {
  const CurlHTTPClient::Options http{.caFile = deployment.caFile,
                                     .allowInsecureHTTP = deployment.allowInsecureHTTP,
                                     .onIdle = [launcher] { launcher->workEnded(); }};
  return {std::make_shared<CurlHTTPClient>(clock, http),
          std::make_shared<SystemDeviceInformation>(paths.deviceFile, paths.root)};
}

// The one place where the system's services are put together. Nothing is read, opened or started
// yet: each service does that when it is first asked. Only `triedBundle` will be loaded.
Platform::Services systemServices(const Paths& paths, const Deployment& deployment,
                                  const std::shared_ptr<Clock>& clock,
                                  const std::shared_ptr<Launcher>& launcher,
                                  const Reloadable& reloadable,
                                  std::optional<FileStamp> triedBundle) {
  const auto workEnded = [launcher] { launcher->workEnded(); };
  const auto network = std::make_shared<SystemNetwork>(clock, workEnded);
  launcher->watch(reloadable.http->heartbeat());
  launcher->watch(network->heartbeat());
  const auto preferences = std::make_shared<FilePreferences>(paths.preferencesFolder);
  const auto random = std::make_shared<SystemRandom>();
  return {
      .clock = clock,
      .http = reloadable.http,
      .network = network,
      .preferences = preferences,
      .deviceInformation = reloadable.deviceInformation,
      .locale = std::make_shared<SystemLocale>(paths.localeFile),
      .consent = std::make_shared<StoredConsent>(preferences, random),
      .random = random,
      .keepAlive = launcher,
      .files = std::make_shared<LocalFileSystem>(),
      .extensionTokens = std::make_shared<ExtensionTokens>(random, limits::uploadBytesUnderWay),
      .bundles = std::make_shared<DynamicBundleLoader>(paths.performanceBundle, triedBundle),
      .powerLog = std::make_shared<JournalPowerLog>(paths.journalSocket),
      .paths = paths,
      .deployment = deployment,
  };
}

// Borrows the platform, which otherwise is the only owner of what can be reloaded.
Reload::Effects effectsOf(Platform& platform, Reloadable reloadable,
                          const std::shared_ptr<CorviddAgent>& agent) {
  return {.putInForce =
              [&platform, http = std::move(reloadable.http)](Deployment deployment) {
                http->trust(deployment.caFile, deployment.allowInsecureHTTP);
                platform.setDeployment(std::move(deployment));
              },
          .readDeviceAnswers =
              [device = std::move(reloadable.deviceInformation)] { return device->reload(); },
          .forgetPauses = [agent] { agent->storebags().forgetPauses(); }};
}

// Watches the folder before it is read, so that no change is missed.
EntitlementReader entitlementReader(const std::string& path, const FolderWatch& watch) {
  return [&watch, folder = std::make_shared<Entitlements>(path)](int socket) -> PeerEntitlements {
    return [&watch, folder, peer = peerIdentity(socket)] {
      watch.watch();
      return peer ? folder->entitlementsForPeer(peer.value()) : Dictionary();
    };
  };
}

Result<ServiceSocket> adoptOrBind(Descriptor passed, const std::string& path) {
  return passed ? ServiceSocket::adopt(std::move(passed)) : ServiceSocket::bind(path);
}

std::string unitOfPeer(int socket) {
  const Result<PeerIdentity> peer = peerIdentity(socket);
  return peer ? peer.value().unit : std::string();
}

Result<std::unique_ptr<IPCListener>> createListener(Platform& platform, Launcher& launcher,
                                                    const FolderWatch& watch) {
  return IPCListener::serving(adoptOrBind(launcher.takeListeningSocket(), platform.paths().socket),
                              entitlementReader(platform.paths().entitlementsFolder, watch),
                              {platform.extensionTokens(), platform.budgets, unitOfPeer});
}

// Null, with a line, where it cannot be had: clients are served all the same.
std::unique_ptr<ControlService> createControl(Platform& platform, Launcher& launcher,
                                              const FolderWatch& watch) {
  auto control = ControlService::serving(
      adoptOrBind(launcher.takeControlSocket(), platform.paths().controlSocket),
      entitlementReader(platform.paths().entitlementsFolder, watch), platform.budgets);
  if (control) return std::move(control).value();
  logWarning("main: Nobody can look at this daemon: {}", control.failure().message);
  return nullptr;
}

std::chrono::seconds idleExit(const Options& options, const Launcher& launcher) {
  if (options.idleExit) return *options.idleExit;
  return launcher.isSocketActivated() ? idleExitWhenSocketActivated : std::chrono::seconds(0);
}

}  // namespace

Paths pathsFor(const Options& options) {
  if (options.root.empty()) return Paths();
  std::string root = std::filesystem::absolute(options.root).lexically_normal().string();
  while (root.ends_with('/')) root.pop_back();
  return Paths(std::move(root));
}

namespace {

// Lets what is under way end, within the time that it has; false where something has not. What is
// not delivered then is lost, which is said.
bool stopInOrder(IPCListener& listener, Platform& platform, Ledger& ledger,
                 std::chrono::seconds timeout) {
  constexpr std::chrono::milliseconds betweenLooks{5};
  listener.close();
  const auto isOver = [&] {
    return listener.connections() == 0 && platform.http().exchangesUnderWay() == 0 &&
           !platform.network().isBusy();
  };
  const auto deadline = std::chrono::steady_clock::now() + timeout;
  while (!isOver() && std::chrono::steady_clock::now() < deadline)
    std::this_thread::sleep_for(betweenLooks);
  const bool hasEnded = isOver();
  const auto why = loggingReason(Reason::lostAtStop);
  if (const std::uint64_t lost = ledger.close())
    logWarning("main: Stopped with {} events lost (lostAtStop)", lost);
  return hasEnded;
}

}  // namespace

int runDaemon(const Options& options) {
  const Paths paths = pathsFor(options);
  const auto clock = std::make_shared<SystemClock>();
  // A peer that is gone is an error of the write, not the end of the process.
  std::signal(SIGPIPE, SIG_IGN);

  giveMemoryBack();
  setMainThreadQualityOfService(QualityOfServiceClass::utility, 0);
  const Logging logging(options);
  giveUpCapabilities();
  raiseDescriptorLimit();
  const auto launcher = std::make_shared<Launcher>(clock);
  const Deployment deployment = deploymentAt(paths.deploymentFile);
  // Before the daemon is in its sandbox, which starts no processes; the trial is in its own.
  const BundleTrial bundle = tryBundle(paths.performanceBundle, "MetrixAdaptor",
                                       [&] { return !enterSandbox(options, paths, deployment); });
  if (!options.enforcesSandbox)
    logWarning("main: The sandbox is off: corvidd may do whatever its user may");
  if (const auto failure = enterSandbox(options, paths, deployment)) {
    logError("main: sandbox_init() fails: {}\n", *failure);
    return sandboxFailure;
  }
  if (bundle.fault)
    logError("main: The bundle {} is not used: {}; mend or remove it and start corvidd anew",
             paths.performanceBundle, *bundle.fault);

  std::atomic<bool> stops{false};
  std::optional<Reload> reload;
  Signals signals;
  // Before the listener, so that it outlives the sessions.
  Reloadable reloadable = reloadableServices(paths, deployment, clock, launcher);
  Platform platform(systemServices(paths, deployment, clock, launcher, reloadable, bundle.passed));
  Platform::install(&platform);
  const FolderWatch entitlementWatch(paths.entitlementsFolder);
  auto created = createListener(platform, *launcher, entitlementWatch);
  if (!created) {
    logError("main: Cannot listen for clients: {}", created.failure().message);
    return socketFailure;
  }
  const auto agent = CorviddAgent::create();
  const auto statusChanged = [launcher] { launcher->statusChanged(); };
  agent->ledger()->notify(statusChanged);
  agent->storebags().notify(statusChanged);
  agent->notifyOfSessions(statusChanged);
  const std::unique_ptr<ControlService> control =
      createControl(platform, *launcher, entitlementWatch);
  if (control)
    control->resume(std::make_shared<DaemonControl>(
        platform, agent,
        DaemonControl::Facts{.version = CORVID_VERSION,
                             .process = processNumber(),
                             .isSandboxed = options.enforcesSandbox}));
  std::unique_ptr<IPCListener> listener = std::move(created).value();
  listener->resume(agent,
                   {[launcher] { return launcher->tryBeginTransaction(); },
                    [launcher] { launcher->endTransaction(); }},
                   {entitlementWatch.descriptor(), [&] { entitlementWatch.takeChanges(); }});
  launcher->watch(listener->heartbeat());
  if (control) launcher->watch(control->heartbeat());
  launcher->watch(signals.heartbeat());
  logInfo("main: Listener resumes with sandbox, start loop.");
  sealSandbox(options);
  launcher->notifyReady(statusLine(0, 0, {}));
  reload.emplace(paths, options.enforcesSandbox ? std::optional(deployment) : std::nullopt,
                 effectsOf(platform, std::move(reloadable), agent));
  signals.watch([&](int signal) {
    if (signal == SIGHUP) return reload->run();
    if (stops.exchange(true)) std::_Exit(secondSignal);
    launcher->requestStop();
  });
  launcher->runLoop(
      idleExit(options, *launcher),
      [&] {
        return platform.http().exchangesUnderWay() > 0 || platform.network().isBusy() ||
               listener->connections() > 0;
      },
      [&] {
        agent->ledger()->takeChange();
        return statusLine(agent->sessionCount(), agent->ledger()->totals().balance.held,
                          agent->storebags().all());
      });
  reload->end();
  if (!stopInOrder(*listener, platform, *agent->ledger(), options.stopTimeout)) {
    // A thread that waits for a server is not waited for. The sockets' files go as in any end.
    listener->abandonSocket();
    if (control) control->abandonSocket();
    std::_Exit(0);
  }
  return 0;
}

}  // namespace corvid
