// file::cleanupPathname: file paths and http URLs tidied in place.
#include <kestrel/textutil.h>

#include <QDir>

#include <algorithm>

namespace kestrel::file {

namespace {
// How far after "://" the cleaned part of an http URL starts. Seven
// characters, counted from "://" and not from the start of the text: the
// first characters of the host are never touched. Kept for compatibility.
constexpr qsizetype kUrlCleanOffset = 7;
}  // namespace

void cleanupPathname(QString& path) {
  const qsizetype scheme = path.indexOf(QLatin1String("://"));
  if (scheme <= 0) {
    path.replace(QLatin1Char('\\'), QLatin1Char('/'));
    path = QDir::cleanPath(path);
    return;
  }
  if (!path.startsWith(QLatin1String("http"), Qt::CaseInsensitive)) return;

  const qsizetype length = path.size();
  const qsizetype start = std::min(scheme + kUrlCleanOffset, length);
  const qsizetype query = path.indexOf(QLatin1Char('?'), start);
  const qsizetype end = query < 0 ? length : query;
  const QString piece = path.mid(start, end - start);
  QString cleaned = QDir::cleanPath(piece);
  if (end > 0 && path.at(end - 1) == QLatin1Char('/')) cleaned += QLatin1Char('/');
  if (cleaned != piece) path = path.left(start) + cleaned + path.mid(end);
}

}  // namespace kestrel::file
