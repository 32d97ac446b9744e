// Feeds arbitrary bytes, read as UTF-8, to the two version readers.
// - VersionNumber::fromQString reads 0 to 4 parts and leaves the others 0;
//   the parts printed with "%d.%d.%d.%d" read back as 4 equal parts.
// - The order operators agree with one another: exactly one of <, ==, >
//   holds, >= is the negation of <, <= is < or ==.
// - parseVersionNumber gives the same rank with or without ok; more than
//   four non-empty parts is bad; a part appended after the third changes
//   neither the rank nor (for a good text of three parts) ok.
#include <kestrel/version.h>

#include <QString>
#include <QStringList>

#include <cstddef>
#include <cstdint>
#include <cstdlib>

namespace {

void check(bool condition) {
  if (!condition) std::abort();
}

void checkOrder(const VersionNumber& a, const VersionNumber& b) {
  const int holding = int(a < b) + int(a == b) + int(a > b);
  check(holding == 1);
  check((a >= b) == !(a < b));
  check((a <= b) == (a < b || a == b));
  check((a < b) == (b > a));
}

void checkVersionNumber(const QString& text) {
  VersionNumber v;
  const int count = v.fromQString(text);
  check(count >= 0 && count <= 4);
  const int parts[] = {v.mMajor, v.mMinor, v.mBuild, v.mPatch};
  for (int i = count; i < 4; ++i) check(parts[i] == 0);

  const QString printed = QString::asprintf("%d.%d.%d.%d", v.mMajor, v.mMinor, v.mBuild, v.mPatch);
  VersionNumber again;
  check(again.fromQString(printed) == 4);
  check(again == v);
  checkOrder(v, again);
  checkOrder(v, VersionNumber(4, 1, 7076, 4458));
  checkOrder(VersionNumber(0, 0, 0, 0), v);
}

void checkRank(const QString& text) {
  bool ok = true;
  const int rank = VersionInfo::parseVersionNumber(text, &ok);
  check(VersionInfo::parseVersionNumber(text) == rank);
  const qsizetype parts = text.split(QLatin1Char('.'), Qt::SkipEmptyParts).size();
  if (parts > 4) check(!ok);
  if (parts == 3) {
    bool okWithFourth = !ok;
    check(VersionInfo::parseVersionNumber(text + QStringLiteral(".x"), &okWithFourth) == rank);
    check(okWithFourth == ok);
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const QString text =
      QString::fromUtf8(reinterpret_cast<const char*>(data), static_cast<qsizetype>(size));
  checkVersionNumber(text);
  checkRank(text);
  return 0;
}
