#include "daemon/CheckConfig.h"

#include <fmt/format.h>

#include <cstdio>
#include <optional>
#include <stdexcept>
#include <string_view>

#include "daemon/check/Inspection.h"
#include "platform/system/Accounts.h"

namespace corvid {

namespace {

constexpr const char* daemonsName = "corvidd";

// Nothing where root asks and nobody knows as whom the daemon would run.
std::optional<Account> daemonsAccount(const Paths& paths) {
  const Account own = ownAccount();
  if (own.user != 0) return own;
  const auto owner = ownerOf(paths.home);
  return owner ? owner : accountNamed(daemonsName);
}

void reportNoAccount(Inspection& it) {
  const std::string what =
      fmt::format("there is no user {}, as which the daemon runs", daemonsName);
  // Below another root somebody else may run it.
  if (!it.paths.root.empty())
    return it.found.note(it.paths.home, fmt::format("missing, and {}; looking as root", what));
  it.found.wrong(it.paths.home, what,
                 it.asRoot(fmt::format("useradd --system --no-create-home --home-dir {} "
                                       "--shell /usr/sbin/nologin {}",
                                       shellWord(it.paths.home), daemonsName)));
}

Findings inspect(const Paths& paths, const ConfigCheckOptions& options, std::uint32_t runner,
                 const std::optional<Account>& account) {
  Inspection it{paths, account.value_or(ownAccount()), runner};
  if (!account) reportNoAccount(it);
  checkKernel(it, options.entersSandbox);
  for (const auto check :
       {checkSandboxProfile, checkBundle, checkDeployment, checkPublicKey, checkInfo,
        checkEntitlements, checkDevice, checkPreferences, checkDeviceFacts, checkWriters})
    check(it);
  if (options.isOnline) checkOnline(it);
  return std::move(it.found);
}

}  // namespace

Findings checkConfig(const Paths& paths, const ConfigCheckOptions& options) {
  return inspect(paths, options, ownAccount().user, daemonsAccount(paths));
}

int printConfigCheck(const Paths& paths, const ConfigCheckOptions& options) {
  const std::uint32_t runner = ownAccount().user;
  const auto account = daemonsAccount(paths);
  if (const auto failure = actAs(account.value_or(ownAccount())))
    throw std::runtime_error(failure->message);
  const Findings found = inspect(paths, options, runner, account);
  fmt::print("{}", options.asJSON ? found.json() : found.text());
  return found.count(Findings::Kind::wrong) > 0 ? 1 : 0;
}

}  // namespace corvid
