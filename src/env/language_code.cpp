// Parsing, printing and the fallback chain of language tags.
#include <kestrel/locale.h>

#include <QRegularExpression>
#include <QStringList>

namespace kestrel {
namespace {

const QRegularExpression& partSeparator() {
  static const QRegularExpression separator(QStringLiteral("[-_]"));
  return separator;
}

}  // namespace

LanguageCode::LanguageCode() = default;

LanguageCode::LanguageCode(const QString& tag) {
  const QStringList pieces = tag.split(QLatin1Char('.'), Qt::SkipEmptyParts);
  if (pieces.isEmpty()) return;
  const QStringList parts = pieces.first().split(partSeparator());
  mPartCount = static_cast<int>(parts.size());
  mLanguage = parts.at(0);
  qsizetype next = 1;
  if (parts.size() > 1 && parts.at(1).size() == 4) {
    mScript = parts.at(1);
    next = 2;
  }
  if (parts.size() > next && parts.at(next).size() == 2) mRegion = parts.at(next);
}

LanguageCode::LanguageCode(const LanguageCode& other)
    : Referent(other),
      mPartCount(other.mPartCount),
      mLanguage(other.mLanguage),
      mScript(other.mScript),
      mRegion(other.mRegion),
      mString(other.mString),
      mParent(other.mParent) {}

LanguageCode& LanguageCode::operator=(const LanguageCode& other) {
  mPartCount = other.mPartCount;
  mLanguage = other.mLanguage;
  mScript = other.mScript;
  mRegion = other.mRegion;
  mString = other.mString;
  mParent = other.mParent;
  return *this;
}

LanguageCode::~LanguageCode() = default;

QString LanguageCode::string() const {
  if (!mString.isEmpty()) return mString;
  QString printed = mLanguage;
  if (!mScript.isEmpty()) printed += QLatin1Char('-') + mScript;
  if (!mRegion.isEmpty()) printed += QLatin1Char('-') + mRegion;
  mString = printed;
  return mString;
}

const LanguageCode* LanguageCode::parent() const {
  if (mPartCount == 0) return this;
  auto* up = new LanguageCode;
  up->mPartCount = mPartCount - 1;
  if (up->mPartCount >= 1) up->mLanguage = mLanguage;
  if (up->mPartCount >= 2) up->mScript = mScript;
  mParent = Ref<LanguageCode>(up);
  return up;
}

}  // namespace kestrel
