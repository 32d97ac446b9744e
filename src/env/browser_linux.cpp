// System::LaunchExternalBrowser: xdg-open, or the opener named by
// KESTREL_URL_OPENER, started without a shell.
#include <kestrel/process.h>
#include <kestrel/system.h>

#include "env/spawn.h"

#include <cstdlib>

namespace kestrel {

bool System::LaunchExternalBrowser(const QString& url, bool, bool) {
  const QByteArray argument = externalBrowserArgument(url);
  if (argument.isEmpty()) return false;
  const char* named = std::getenv("KESTREL_URL_OPENER");
  const QByteArray opener =
      named != nullptr && *named != '\0' ? QByteArray(named) : QByteArray("xdg-open");
  const pid_t pid = env_detail::spawnChild(opener, {argument}, true);
  if (pid < 0) return false;
  env_detail::reapInBackground(pid);
  return true;
}

}  // namespace kestrel
