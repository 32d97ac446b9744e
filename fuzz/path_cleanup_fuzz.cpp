// Feeds arbitrary bytes, read as UTF-8, to file::cleanupPathname and to the
// URL check of the browser launch.
// - A file path comes out without backslashes and is a fixed point: cleaning
//   it again changes nothing.
// - An http URL keeps everything up to seven characters after "://" and its
//   query from the first "?" after that.
// - Any other URL is left as it was.
// - A URL the browser launch accepts becomes one argument of printable ASCII
//   that does not begin with "-"; an empty or "-" URL is always refused.
#include <kestrel/process.h>
#include <kestrel/textutil.h>

#include <QString>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>

namespace {

void check(bool condition) {
  if (!condition) std::abort();
}

void checkCleanup(const QString& input) {
  QString path = input;
  kestrel::file::cleanupPathname(path);
  const qsizetype scheme = input.indexOf(QLatin1String("://"));
  if (scheme <= 0) {
    check(!path.contains(QLatin1Char('\\')));
    QString again = path;
    kestrel::file::cleanupPathname(again);
    check(again == path || path.indexOf(QLatin1String("://")) > 0);
  } else if (!input.startsWith(QLatin1String("http"), Qt::CaseInsensitive)) {
    check(path == input);
  } else {
    const qsizetype start = std::min(scheme + 7, input.size());
    check(path.left(start) == input.left(start));
    const qsizetype query = input.indexOf(QLatin1Char('?'), start);
    if (query >= 0) check(path.endsWith(input.mid(query)));
  }
}

void checkBrowserArgument(const QString& url) {
  const QByteArray argument = kestrel::externalBrowserArgument(url);
  if (url.isEmpty() || url.startsWith(QLatin1Char('-'))) check(argument.isEmpty());
  if (argument.isEmpty()) return;
  check(argument.front() != '-');
  for (const char c : argument) check(c > ' ' && c < 0x7f);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const QString text =
      QString::fromUtf8(reinterpret_cast<const char*>(data), static_cast<qsizetype>(size));
  checkCleanup(text);
  checkBrowserArgument(text);
  return 0;
}
