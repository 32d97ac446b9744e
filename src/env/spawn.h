// Starting child programs without a shell, shared by Process and the browser
// launch.
#pragma once

#include <QByteArray>
#include <QList>

#include <sys/types.h>

namespace kestrel::env_detail {

// Starts program with argv = {program, arguments...} and the caller's
// environment, an empty signal mask and default signal handlers. With
// searchPath the program is looked up on PATH. Returns the child's pid, or
// -1 if it could not be started (including an argument with a NUL byte,
// which could not reach the child verbatim).
pid_t spawnChild(const QByteArray& program, const QList<QByteArray>& arguments, bool searchPath);

// Reaps pid on a detached thread once it ends, so that no zombie remains.
void reapInBackground(pid_t pid);

}  // namespace kestrel::env_detail
