// String helpers: percent-encoding of a byte, HTML entities, file-name
// characters, and the conversions between QString and wide, UTF-16 and C
// strings.
#include <kestrel/textutil.h>

#include <array>

namespace kestrel {

namespace {

// "%00" ... "%ff", each entry null-terminated.
using HexTable = std::array<std::array<char, 4>, 256>;

constexpr HexTable makeHexTable() {
  constexpr char digits[] = "0123456789abcdef";
  HexTable table{};
  for (int i = 0; i < 256; ++i)
    table[static_cast<std::size_t>(i)] = {'%', digits[i >> 4], digits[i & 15], '\0'};
  return table;
}

constexpr HexTable sHexTable = makeHexTable();

}  // namespace

const char* hexEncode(char c) {
  return sHexTable[static_cast<unsigned char>(c)].data();
}

QString unescapeHtmlString(const QString& s) {
  QString out = s;
  out.replace(QLatin1String("&amp;"), QLatin1String("&"));
  out.replace(QLatin1String("&lt;"), QLatin1String("<"));
  out.replace(QLatin1String("&gt;"), QLatin1String(">"));
  return out;
}

QString reformatFileNameString(const QString& s) {
  QString out = s;
  for (const char c : {'\\', '/', ':', '*', '?', '"', '<', '>', '|'}) out.remove(QLatin1Char(c));
  return out;
}

static_assert(sizeof(wchar_t) == 4, "wide strings hold UTF-32 on this platform");

QString toQString(const wchar_t* s) {
  if (s == nullptr) return QString();
  return QString::fromWCharArray(s);
}

QString toQString(const std::wstring& s) {
  return QString::fromStdWString(s);
}

QString toQString(const unsigned short* s) {
  if (s == nullptr) return QString();
  return QString::fromUtf16(reinterpret_cast<const char16_t*>(s));
}

QString toQString(const char* s) {
  return QString::fromUtf8(s);
}

std::wstring toWString(const QString& s) {
  return s.toStdWString();
}

QString operator+(const QString& s, char c) {
  QString out = s;
  out.append(QChar::fromLatin1(c));
  return out;
}

QString operator+(char c, const QString& s) {
  return QString(QChar::fromLatin1(c)).append(s);
}

QString operator+(const QString& s, const wchar_t* w) {
  QString out = s;
  out.append(toQString(w));
  return out;
}

QString operator+(const wchar_t* w, const QString& s) {
  return toQString(w).append(s);
}

}  // namespace kestrel
