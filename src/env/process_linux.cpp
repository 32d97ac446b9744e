// kestrel::Process: a child program started with posix_spawn and watched with
// waitpid.
#include <kestrel/process.h>

#include "env/spawn.h"

#include <QFile>

#include <cerrno>
#include <csignal>

#include <sys/wait.h>
#include <time.h>

namespace kestrel {

namespace {
// How long the destructor waits for a child it asked to terminate before it
// leaves the reaping to a background waiter.
constexpr int kGraceSteps = 100;
constexpr long kGraceStepNs = 5'000'000;  // 5 ms, 0.5 s in all
}  // namespace

struct Process::Record {
  pid_t pid = -1;
  bool reaped = false;
  int status = -1;

  // Reaps the child if it has ended (or, with wait, once it ends).
  void poll(bool wait) {
    if (pid < 0 || reaped) return;
    int raw = 0;
    pid_t rc;
    do {
      rc = ::waitpid(pid, &raw, wait ? 0 : WNOHANG);
    } while (rc < 0 && errno == EINTR);
    if (rc == 0) return;
    reaped = true;
    if (rc < 0)
      status = -1;  // reaped elsewhere (SIGCHLD ignored, say): no status to give
    else if (WIFEXITED(raw))
      status = WEXITSTATUS(raw);
    else if (WIFSIGNALED(raw))
      status = WTERMSIG(raw);
  }
};

Process::Process(const QString& path, const QStringList& arguments) : d(new Record) {
  QList<QByteArray> args;
  args.reserve(arguments.size());
  for (const QString& argument : arguments) args.append(argument.toUtf8());
  d->pid = env_detail::spawnChild(QFile::encodeName(path), args, false);
}

Process::~Process() {
  if (isRunning()) {
    ::kill(d->pid, SIGTERM);
    const timespec step{0, kGraceStepNs};
    for (int i = 0; i < kGraceSteps && isRunning(); ++i) ::nanosleep(&step, nullptr);
    if (!d->reaped) env_detail::reapInBackground(d->pid);
  }
  delete d;
}

bool Process::started() const {
  return d->pid > 0;
}

bool Process::isRunning() {
  d->poll(false);
  return d->pid > 0 && !d->reaped;
}

void Process::kill() {
  // Only while not reaped: the pid cannot have been reused before that.
  if (isRunning()) ::kill(d->pid, SIGTERM);
}

void Process::block() {
  d->poll(true);
}

int Process::status() {
  d->poll(false);
  return d->status;
}

}  // namespace kestrel
