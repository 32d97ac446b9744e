// posix_spawn without a shell: each argument is one argv entry.
#include "env/spawn.h"

#include <cerrno>
#include <csignal>
#include <system_error>
#include <thread>
#include <vector>

#include <spawn.h>
#include <sys/wait.h>

extern char** environ;

namespace kestrel::env_detail {

namespace {

// Attributes that give the child a clean signal state whatever the caller
// blocked or ignored.
class SpawnAttributes {
 public:
  SpawnAttributes() {
    posix_spawnattr_init(&mAttr);
    sigset_t none;
    sigemptyset(&none);
    posix_spawnattr_setsigmask(&mAttr, &none);
    sigset_t reset;
    sigemptyset(&reset);
    for (int sig : {SIGTERM, SIGINT, SIGHUP, SIGQUIT, SIGPIPE, SIGCHLD, SIGUSR1, SIGUSR2})
      sigaddset(&reset, sig);
    posix_spawnattr_setsigdefault(&mAttr, &reset);
    posix_spawnattr_setflags(&mAttr, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);
  }
  ~SpawnAttributes() { posix_spawnattr_destroy(&mAttr); }
  SpawnAttributes(const SpawnAttributes&) = delete;
  SpawnAttributes& operator=(const SpawnAttributes&) = delete;
  const posix_spawnattr_t* get() const { return &mAttr; }

 private:
  posix_spawnattr_t mAttr;
};

}  // namespace

pid_t spawnChild(const QByteArray& program, const QList<QByteArray>& arguments, bool searchPath) {
  if (program.isEmpty() || program.contains('\0')) return -1;
  std::vector<char*> argv;
  argv.reserve(static_cast<std::size_t>(arguments.size()) + 2);
  argv.push_back(const_cast<char*>(program.constData()));
  for (const QByteArray& argument : arguments) {
    if (argument.contains('\0')) return -1;
    argv.push_back(const_cast<char*>(argument.constData()));
  }
  argv.push_back(nullptr);
  const SpawnAttributes attributes;
  pid_t pid = -1;
  const int rc =
      searchPath
          ? posix_spawnp(&pid, program.constData(), nullptr, attributes.get(), argv.data(), environ)
          : posix_spawn(&pid, program.constData(), nullptr, attributes.get(), argv.data(), environ);
  return rc == 0 ? pid : -1;
}

void reapInBackground(pid_t pid) {
  try {
    std::thread([pid] {
      while (::waitpid(pid, nullptr, 0) < 0 && errno == EINTR) {
      }
    }).detach();
  } catch (const std::system_error&) {
    // No thread to spare: the child stays a zombie until the process ends.
  }
}

}  // namespace kestrel::env_detail
