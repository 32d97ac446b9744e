// The error log writer and the assertion hooks.
#include <kestrel/status.h>
#include <kestrel/system.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <string>

namespace kestrel {

namespace {
// Application-clock time of the previous ErrorLog call. Not guarded by a
// lock: concurrent callers may see mixed deltas (atomic only so that the
// reads and writes themselves are well defined).
std::atomic<double> gPreviousLogTime{0.0};
}  // namespace

bool ErrorLog(FILE* file, const QString& message) {
  if (!file) return true;
  const double now = System::getTime();
  const double deltaMs = (now - gPreviousLogTime.load(std::memory_order_relaxed)) * 1000.0;

  // The text of the wide pattern "%d(%.3lf, %.1lf): %S", produced narrow: a
  // %S argument ends at its first NUL character.
  char prefix[96];
  const int written =
      std::snprintf(prefix, sizeof prefix, "%d(%.3f, %.1f): ", System::sCurFrame, now, deltaMs);
  const int prefixLength = std::clamp(written, 0, static_cast<int>(sizeof prefix) - 1);
  const qsizetype nul = message.indexOf(QChar(u'\0'));
  const QByteArray text = (nul < 0 ? message : message.left(nul)).toUtf8();

  std::string line;
  line.reserve(static_cast<std::size_t>(prefixLength) + static_cast<std::size_t>(text.size()));
  line.append(prefix, static_cast<std::size_t>(prefixLength));
  line.append(text.constData(), static_cast<std::size_t>(text.size()));
  std::fwrite(line.data(), 1, line.size(), file);
  std::fflush(file);

  gPreviousLogTime.store(now, std::memory_order_relaxed);
  return true;
}

bool checkFailed(bool condition, const char*, int, const char*, bool*) {
  return !condition;
}

void onCheckFail(bool, const char* first, int line, const char* second) {
  std::fprintf(stderr, "assertion failure %s at %s:%d\n", first ? first : "(null)",
               second ? second : "(null)", line);
  std::abort();
}

}  // namespace kestrel
