#include "platform/system/SeccompFilter.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <netinet/in.h>
#include <sched.h>
#include <seccomp.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstring>
#include <string_view>
#include <utility>
#include <vector>

#include "base/Result.h"

namespace corvid {

namespace {

using Arguments = std::vector<scmp_arg_cmp>;

scmp_arg_cmp is(unsigned argument, std::uint64_t value) {
  return {argument, SCMP_CMP_EQ, value, 0};
}
scmp_arg_cmp has(unsigned argument, std::uint64_t mask, std::uint64_t value) {
  return {argument, SCMP_CMP_MASKED_EQ, mask, value};
}

// One harmless form of a system call that has others.
struct HarmlessForm {
  std::string_view name;
  Arguments arguments;
};

void addSockets(const SandboxProfile& profile, std::vector<HarmlessForm>& forms) {
  // A type carries flags. The protocols are named because others, such as multipath TCP, are not
  // confined like these.
  constexpr std::uint64_t typeMask = 0xf;
  const auto internet = [&](std::uint64_t type, std::initializer_list<std::uint64_t> protocols) {
    for (const std::uint64_t family : {std::uint64_t{AF_INET}, std::uint64_t{AF_INET6}})
      for (const std::uint64_t protocol : protocols)
        forms.push_back({"socket", {is(0, family), has(1, typeMask, type), is(2, protocol)}});
  };
  if (profile.allowsTCPConnect) internet(SOCK_STREAM, {0, IPPROTO_TCP});
  if (profile.allowsUDP) internet(SOCK_DGRAM, {0, IPPROTO_UDP});
  forms.push_back({"socket", {is(0, AF_UNIX)}});
  // Look-ups ask for the machine's addresses; protocol 0 is NETLINK_ROUTE.
  forms.push_back({"socket", {is(0, AF_NETLINK), is(2, 0)}});
  forms.push_back({"socketpair", {is(0, AF_UNIX)}});
}

// Memory is writable or executable, and never becomes executable.
void addMemory(std::vector<HarmlessForm>& forms) {
#ifndef __s390__  // there the arguments lie in memory, which a filter cannot see
  constexpr std::uint64_t both = PROT_WRITE | PROT_EXEC;
  for (const std::string_view name : {"mmap", "mmap2"})
    for (const int protection : {0, PROT_WRITE, PROT_EXEC})
      forms.push_back({name, {has(2, both, static_cast<std::uint64_t>(protection))}});
#endif
  forms.push_back({"mprotect", {has(2, PROT_EXEC, 0)}});
}

std::vector<HarmlessForm> harmlessForms(const SandboxProfile& profile) {
  constexpr std::uint64_t newNamespaces = CLONE_NEWNS | CLONE_NEWCGROUP | CLONE_NEWUTS |
                                          CLONE_NEWIPC | CLONE_NEWUSER | CLONE_NEWPID |
                                          CLONE_NEWNET;
#ifdef __s390__
  constexpr unsigned cloneFlags = 1;
#else
  constexpr unsigned cloneFlags = 0;
#endif
  const auto self = static_cast<std::uint64_t>(getpid());
  std::vector<HarmlessForm> forms = {
      // Threads, no processes.
      {"clone", {has(cloneFlags, newNamespaces | CLONE_THREAD, CLONE_THREAD)}},
      {"tgkill", {is(0, self)}},
      // Not to connect by sending, which Landlock does not see.
      {"send", {has(3, MSG_FASTOPEN, 0)}},
      {"sendmmsg", {has(3, MSG_FASTOPEN, 0)}},
      {"sendmsg", {has(2, MSG_FASTOPEN, 0)}},
      {"sendto", {has(3, MSG_FASTOPEN, 0)}},
      {"prlimit64", {is(0, 0)}},
      {"prctl", {is(0, PR_SET_NAME)}},
      {"prctl", {is(0, PR_GET_NAME)}},
      {"ioctl", {is(1, FIONBIO)}},
      {"ioctl", {is(1, FIONREAD)}},
      {"ioctl", {is(1, TCGETS)}},
  };
  // No locks, leases or signals by descriptor.
  for (const std::string_view name : {"fcntl", "fcntl64"})
    for (const int command : {F_DUPFD_CLOEXEC, F_GETFD, F_SETFD, F_GETFL, F_SETFL})
      forms.push_back({name, {is(1, static_cast<std::uint64_t>(command))}});
  addMemory(forms);
  addSockets(profile, forms);
  if (profile.hasSanitizer) {
    forms.push_back({"clone", {has(cloneFlags, newNamespaces, 0)}});
    forms.push_back({"prctl", {}});
  }
  return forms;
}

// A filter under construction. The first error is kept and makes load() fail.
class Filter {
 public:
  explicit Filter(std::uint32_t otherwise) : _context(seccomp_init(otherwise)) {
    if (_context == nullptr) {
      _error = "out of memory";
      return;
    }
    check(seccomp_attr_set(_context, SCMP_FLTATR_ACT_BADARCH, SCMP_ACT_KILL_PROCESS));
    // Set before, once for all filters.
    check(seccomp_attr_set(_context, SCMP_FLTATR_CTL_NNP, 0));
    // Found by halving instead of one after the other.
    check(seccomp_attr_set(_context, SCMP_FLTATR_CTL_OPTIMIZE, 2));
  }
  ~Filter() { seccomp_release(_context); }
  Filter(const Filter&) = delete;
  Filter& operator=(const Filter&) = delete;

  void set(scmp_filter_attr attribute) {
    if (_error.empty()) check(seccomp_attr_set(_context, attribute, 1));
  }

  void add(std::uint32_t action, const std::string& name, const Arguments& arguments = {}) {
    if (!_error.empty()) return;
    const int number = seccomp_syscall_resolve_name(name.c_str());
    if (number == __NR_SCMP_ERROR) _error = fmt::format("there is no system call '{}'", name);
    // What only other architectures have is left out. Some have all calls of sockets in one; the
    // library takes apart what the filter can see of that.
    else if (seccomp_syscall_resolve_name_rewrite(seccomp_arch_native(), name.c_str()) >= 0)
      check(seccomp_rule_add_array(_context, action, number,
                                   static_cast<unsigned>(arguments.size()), arguments.data()));
  }

  std::optional<std::string> load() {
    if (!_error.empty()) return "cannot make the system-call filter: " + _error;
    if (seccomp_load(_context) == 0) return std::nullopt;
    // The library's own code does not tell what the kernel said.
    return fmt::format(
        "cannot enter the system-call filter: {}; the kernel must have seccomp filters "
        "(CONFIG_SECCOMP_FILTER)",
        std::strerror(errno));
  }

 private:
  void check(int result) {
    if (result < 0 && _error.empty()) _error = std::strerror(-result);
  }

  const scmp_filter_ctx _context;
  std::string _error;
};

}  // namespace

std::optional<std::string> enterSeccompFilter(const SandboxProfile& profile) {
  // Two filters, since one notes all that it refuses or nothing: new glibcs try an absent call at
  // each thread. A call that every filter always allows costs no more for the second one.
  Filter absent(SCMP_ACT_ALLOW);
  Filter allowed(SCMP_ACT_ERRNO(EPERM));
  allowed.set(SCMP_FLTATR_CTL_LOG);
  for (const std::string& name : profile.absentSystemCalls) {
    absent.add(SCMP_ACT_ERRNO(ENOSYS), name);
    allowed.add(SCMP_ACT_ALLOW, name);
  }
  const std::vector<HarmlessForm> forms = harmlessForms(profile);
  for (const std::string& name : profile.systemCalls) {
    bool hasHarmlessForm = false;
    for (const HarmlessForm& form : forms) {
      if (form.name != name) continue;
      hasHarmlessForm = true;
      allowed.add(SCMP_ACT_ALLOW, name, form.arguments);
    }
    if (!hasHarmlessForm) allowed.add(SCMP_ACT_ALLOW, name);
  }
  if (auto error = absent.load()) return error;
  return allowed.load();
}

std::optional<std::string> refuseSystemCallsInAllThreads(std::initializer_list<const char*> names) {
  Filter filter(SCMP_ACT_ALLOW);
  filter.set(SCMP_FLTATR_CTL_TSYNC);
  filter.set(SCMP_FLTATR_CTL_LOG);
  for (const char* name : names) filter.add(SCMP_ACT_ERRNO(EPERM), name);
  return filter.load();
}

}  // namespace corvid
