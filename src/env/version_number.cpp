// VersionNumber: reading "%d.%d.%d.%d" text and the ordering.
#include <kestrel/version.h>

#include <QByteArray>

#include <climits>
#include <tuple>

namespace {

bool isCSpace(char c) {
  return c == ' ' || c == '\t' || c == '\n' || c == '\v' || c == '\f' || c == '\r';
}

bool isDigit(char c) {
  return c >= '0' && c <= '9';
}

// Reads one "%d" at *p: optional white space, sign, then at least one digit.
// Advances *p and returns true on success; saturates at the int limits.
bool scanInt(const char*& p, int& value) {
  const char* s = p;
  while (isCSpace(*s)) ++s;
  const bool negative = *s == '-';
  if (*s == '-' || *s == '+') ++s;
  if (!isDigit(*s)) return false;
  long long magnitude = 0;
  for (; isDigit(*s); ++s) {
    if (magnitude <= static_cast<long long>(INT_MAX) + 1) magnitude = magnitude * 10 + (*s - '0');
  }
  if (negative)
    value =
        magnitude > static_cast<long long>(INT_MAX) + 1 ? INT_MIN : static_cast<int>(-magnitude);
  else
    value = magnitude > INT_MAX ? INT_MAX : static_cast<int>(magnitude);
  p = s;
  return true;
}

auto parts(const VersionNumber& v) {
  return std::tie(v.mMajor, v.mMinor, v.mBuild, v.mPatch);
}

}  // namespace

VersionNumber::VersionNumber(const QString& text) {
  fromQString(text);
}

int VersionNumber::fromQString(const QString& text) {
  mMajor = mMinor = mBuild = mPatch = 0;
  if (text.isNull()) return 0;
  const QByteArray latin1 = text.toLatin1();
  const char* p = latin1.constData();
  int* const fields[] = {&mMajor, &mMinor, &mBuild, &mPatch};
  int count = 0;
  for (int* field : fields) {
    if (count > 0) {
      if (*p != '.') break;
      ++p;
    }
    if (!scanInt(p, *field)) break;
    ++count;
  }
  return count;
}

bool VersionNumber::operator==(const VersionNumber& other) const {
  return parts(*this) == parts(other);
}

bool VersionNumber::operator<(const VersionNumber& other) const {
  return parts(*this) < parts(other);
}

bool VersionNumber::operator>=(const VersionNumber& other) const {
  return !(*this < other);
}

bool VersionNumber::operator<=(const VersionNumber& other) const {
  return *this < other || *this == other;
}

bool VersionNumber::operator>(const VersionNumber& other) const {
  return !(*this <= other);
}
