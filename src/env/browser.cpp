// The check and the encoded form of a URL handed to the desktop's opener.
#include <kestrel/process.h>

#include <QUrl>

namespace kestrel {

QByteArray externalBrowserArgument(const QString& url) {
  if (url.isEmpty() || url.startsWith(QLatin1Char('-'))) return QByteArray();
  QString text = url;
  text.replace(QLatin1Char(' '), QLatin1String("%20"));
  const QUrl parsed(text, QUrl::StrictMode);
  if (!parsed.isValid()) return QByteArray();
  return parsed.toEncoded();
}

}  // namespace kestrel
