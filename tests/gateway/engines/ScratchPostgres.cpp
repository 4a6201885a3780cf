#include "tests/gateway/engines/ScratchPostgres.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <grp.h>
#include <pwd.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <stdexcept>

#include "base/Descriptor.h"
#include "tests/support/Waiting.h"

namespace corvid::fleet {

namespace {

namespace fs = std::filesystem;

// Debian keeps the programs of each version apart.
std::string programFolder() {
  for (const auto& version : fs::directory_iterator("/usr/lib/postgresql"))
    if (fs::exists(version.path() / "bin/initdb")) return version.path() / "bin";
  throw std::runtime_error("PostgreSQL is not installed: scripts/setup fleet");
}

}  // namespace

ScratchPostgres::ScratchPostgres() : _programs(programFolder()) {
  const std::string folder = _scratch.path("postgres");
  fs::create_directory(folder);
  if (const passwd* const user = geteuid() == 0 ? getpwnam("postgres") : nullptr) {
    chmod(_scratch.path().c_str(), 0711);
    if (chown(folder.c_str(), user->pw_uid, user->pw_gid) != 0)
      throw std::runtime_error("chown " + folder);
  }
  ChildProcess made(asUser({_programs + "/initdb", "-D", folder + "/data", "-A", "trust", "-U",
                            "corvid", "--no-sync", "-E", "UTF8", "--locale=C.UTF-8"}));
  if (made.waitForExit(std::chrono::seconds(60)) != 0) throw std::runtime_error("initdb failed");
  start();
}

ScratchPostgres::~ScratchPostgres() {
  _server->signal(SIGINT);  // ends connections and its children
  (void)_server->waitForExit(std::chrono::seconds(10));
}

std::string ScratchPostgres::target() const {
  return fmt::format("host={} user=corvid dbname=postgres connect_timeout=5",
                     _scratch.path("postgres"));
}

ChildProcess::Program ScratchPostgres::asUser(std::vector<std::string> command) const {
  const Descriptor output(
      open(_scratch.path("postgres.log").c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600));
  const passwd* const user = geteuid() == 0 ? getpwnam("postgres") : nullptr;
  const uid_t uid = user == nullptr ? geteuid() : user->pw_uid;
  const gid_t gid = user == nullptr ? getegid() : user->pw_gid;
  const std::string log = _scratch.path("postgres.log");
  return {
      .command = std::move(command), .prepare = [uid, gid, log] {
        const int file = open(log.c_str(), O_WRONLY | O_APPEND);
        dup2(file, 1);
        dup2(file, 2);
        if (geteuid() == 0 && (setgroups(0, nullptr) != 0 || setgid(gid) != 0 || setuid(uid) != 0))
          _exit(126);
        if (chdir("/") != 0) _exit(126);
        // Another user's process does not inherit that. SIGQUIT ends its children, too.
        prctl(PR_SET_PDEATHSIG, SIGQUIT);
      }};
}

void ScratchPostgres::start() {
  const std::string folder = _scratch.path("postgres");
  const std::string socket = folder + "/.s.PGSQL.5432";
  _server = nullptr;
  const bool answers = waitUntil(
      [&] {
        // It ends at once while children of one that was killed still have its memory.
        if (!_server || !_server->isRunning())
          _server = std::make_unique<ChildProcess>(
              asUser({_programs + "/postgres", "-D", folder + "/data", "-k", folder, "-c",
                      "listen_addresses=", "-c", "shared_buffers=32MB"}));
        return fs::exists(socket) &&
               ChildProcess(asUser({_programs + "/pg_isready", "-q", "-h", folder}))
                       .waitForExit() == 0;
      },
      std::chrono::seconds(60), std::chrono::milliseconds(50));
  if (!answers) throw std::runtime_error(contentOf(_scratch.path("postgres.log")));
}

void ScratchPostgres::kill() { _server->kill(); }

}  // namespace corvid::fleet
