// DateTime text: the ISO 8601 writer and reader, the HTTP date reader and the
// stream operators.
//
// The ISO reader is a character state machine over one token:
//
//   state   field        ends with      token rule
//   0       year         '-'            64-bit integer
//   1       month        '-'            integer, at least 2 characters
//   2       day          'T'            exactly 2 characters
//   3       hour         ':'            exactly 2 characters
//   4       minute       ':'            exactly 2 characters
//   5       second       'Z' '+' '-'    decimal number, truncated, >= 2 characters
//   6       zone hours   ':'            integer of any length, sign included
//   7       zone minutes (end)          exactly 2 characters
//
// White space is skipped anywhere. An empty token takes any first character
// but ':', 'T' and 'Z' (a sign enters a token that way). After "-" in the
// seconds state the zone token restarts as "-" so that the zone hours read
// negative, and the zone minutes take the sign of the zone hours. 'Z' ends
// parsing at once. The text may stop after the year, the month, the day or
// the seconds (the last meaning UTC), or after the zone minutes.
#include <kestrel/datetime.h>

#include <QRegularExpression>
#include <QStringView>
#include <QTextStream>

#include <climits>
#include <cmath>
#include <cstdlib>
#include <ostream>
#include <string>
#include <type_traits>

namespace kestrel {

DateTimeParseError::DateTimeParseError(const QString& input)
    : std::runtime_error((QStringLiteral("Could not parse time value ") + input).toStdString()),
      mMessage(QStringLiteral("Could not parse time value ") + input) {}

namespace {

// ------------------------------------------------------------------
// Writing
// ------------------------------------------------------------------

// Appends v in decimal, zero-padded to `width` characters counting a minus
// sign: printf's "%0<width>lld".
char* putPadded(char* out, long long v, int width) {
  unsigned long long magnitude = static_cast<unsigned long long>(v);
  if (v < 0) {
    *out++ = '-';
    magnitude = 0 - magnitude;
    --width;
  }
  char digits[20];
  int n = 0;
  do {
    digits[n++] = static_cast<char>('0' + magnitude % 10);
    magnitude /= 10;
  } while (magnitude != 0);
  for (int i = n; i < width; ++i) *out++ = '0';
  while (n > 0) *out++ = digits[--n];
  return out;
}

char* putDate(char* out, const DateTime& t) {
  out = putPadded(out, t.year, 4);
  *out++ = '-';
  out = putPadded(out, t.month, 2);
  *out++ = '-';
  return putPadded(out, t.day, 2);
}

// ------------------------------------------------------------------
// Reading ISO 8601
// ------------------------------------------------------------------

// The token of the state machine; one per thread, so that threads parse
// independently. Its capacity is kept between calls.
thread_local std::u16string tToken;

struct IsoParser {
  const QString& input;
  DateTime& target;
  std::u16string& tok = tToken;  // looked up once: each thread_local access costs a call

  [[noreturn]] void fail() const { throw DateTimeParseError(input); }

  QStringView token() const { return QStringView(tok.data(), qsizetype(tok.size())); }

  void requireLength(std::size_t minimum, std::size_t maximum) const {
    if (tok.size() < minimum || tok.size() > maximum) fail();
  }

  // The value of a token of 1 to 18 ASCII digits (the common case, read
  // here without Qt's number conversion), or -1 for any other token.
  long long plainDigits() const {
    if (tok.empty() || tok.size() > 18) return -1;
    long long v = 0;
    for (const char16_t c : tok) {
      if (c < u'0' || c > u'9') return -1;
      v = v * 10 + (c - u'0');
    }
    return v;
  }

  long long readLongLong() const {
    if (const long long v = plainDigits(); v >= 0) return v;
    bool ok = false;
    const long long v = token().toLongLong(&ok, 10);
    if (!ok) fail();
    return v;
  }

  int readInt() const {
    if (const long long v = plainDigits(); v >= 0 && v <= INT_MAX) return static_cast<int>(v);
    bool ok = false;
    const int v = token().toInt(&ok, 10);
    if (!ok) fail();
    return v;
  }

  // A decimal number truncated to whole seconds, kept modulo 256 like an
  // integer stored in the 8-bit field. Infinities and NaN do not read.
  unsigned char readSeconds() const {
    if (const long long v = plainDigits(); v >= 0) return static_cast<unsigned char>(v);
    bool ok = false;
    const double v = token().toDouble(&ok);
    if (!ok || !std::isfinite(v)) fail();
    double wrapped = std::fmod(std::trunc(v), 256.0);
    if (wrapped < 0) wrapped += 256.0;
    return static_cast<unsigned char>(wrapped);
  }

  void readSecondsAsUtc() {
    requireLength(2, std::u16string::npos);
    target.second = readSeconds();
    target.tzHours = 0;
    target.tzMinutes = 0;
  }

  void run() {
    tok.clear();
    int state = 0;
    for (const QChar qc : input) {
      if (qc.isSpace()) continue;
      const char16_t c = qc.unicode();
      if (tok.empty()) {
        if (c == u':' || c == u'T' || c == u'Z') fail();
        tok.push_back(c);
        continue;
      }
      switch (c) {
        case u'-':
          if (state == 0) {
            target.year = readLongLong();
          } else if (state == 1) {
            requireLength(2, std::u16string::npos);
            target.month = static_cast<unsigned char>(readInt());
          } else if (state == 5) {
            requireLength(2, std::u16string::npos);
            target.second = readSeconds();
            state = 6;
            tok.assign(1, u'-');  // the zone hours read negative
            continue;
          } else {
            fail();
          }
          break;
        case u'+':
          if (state != 5) fail();
          requireLength(2, std::u16string::npos);
          target.second = readSeconds();
          break;
        case u'T':
          if (state != 2) fail();
          requireLength(2, 2);
          target.day = static_cast<unsigned char>(readInt());
          break;
        case u':':
          if (state == 3 || state == 4) {
            requireLength(2, 2);
            (state == 3 ? target.hour : target.minute) = static_cast<unsigned char>(readInt());
          } else if (state == 6) {
            target.tzHours = static_cast<signed char>(readInt());
          } else {
            fail();
          }
          break;
        case u'Z':
          if (state != 5) fail();
          readSecondsAsUtc();
          return;  // anything after 'Z' is ignored
        default:
          tok.push_back(c);
          continue;
      }
      ++state;
      tok.clear();
    }
    finish(state);
  }

  void finish(int state) {
    switch (state) {
      case 0:
        target.year = readLongLong();
        return;
      case 1:
        requireLength(2, 2);
        target.month = static_cast<unsigned char>(readInt());
        return;
      case 2:
        requireLength(2, 2);
        target.day = static_cast<unsigned char>(readInt());
        return;
      case 5:
        readSecondsAsUtc();
        return;
      case 7: {
        requireLength(2, 2);
        const int minutes = readInt();
        target.tzMinutes = static_cast<signed char>(target.tzHours < 0 ? -minutes : minutes);
        return;
      }
      default:
        fail();
    }
  }
};

// ------------------------------------------------------------------
// Reading HTTP dates
// ------------------------------------------------------------------

// An HTTP date is the first match of
//   \s*([^,]+),\s*([0-9]+)\s+(\w+)\s+([0-9]+)\s+([0-9]+):([0-9]+):([0-9]+)
// anywhere in the text (weekday, day, month name, year, hour, minute,
// second). Searched for as written, the leading "\s*([^,]+)" costs a cubic
// number of steps on long runs of blanks. The weekday group only needs some
// character other than a comma just before a comma, and the groups that are
// read depend on that comma alone; so the first comma so preceded whose tail
// matches gives the same date, in linear time.
const QRegularExpression& httpDateTail() {
  // Unicode-aware \s and \w, as the text of headers may hold any characters.
  static const QRegularExpression pattern(
      QStringLiteral(R"(\s*([0-9]+)\s+(\w+)\s+([0-9]+)\s+([0-9]+):([0-9]+):([0-9]+))"),
      QRegularExpression::UseUnicodePropertiesOption);
  return pattern;
}

// `text` with each unpaired surrogate replaced by U+FFFD: valid UTF-16, as the
// matcher needs, with the same date in it (no surrogate is part of a date).
QString withPairedSurrogates(const QString& text) {
  if (text.isValidUtf16()) return text;
  QString copy = text;
  for (qsizetype i = 0; i < copy.size(); ++i) {
    const QChar c = copy[i];
    if (c.isHighSurrogate() && i + 1 < copy.size() && copy[i + 1].isLowSurrogate()) {
      ++i;
    } else if (c.isSurrogate()) {
      copy[i] = QChar::ReplacementCharacter;
    }
  }
  return copy;
}

// Groups 1 to 6: day, month name, year, hour, minute, second.
QRegularExpressionMatch matchHttpDate(const QString& input) {
  // Checked once here: the matcher would otherwise check the rest of the text
  // at every comma (quadratic) and fail on any broken UTF-16 after it.
  const QString text = withPairedSurrogates(input);
  for (qsizetype comma = text.indexOf(QLatin1Char(','), 1); comma > 0;
       comma = text.indexOf(QLatin1Char(','), comma + 1)) {
    if (text[comma - 1] == QLatin1Char(',')) continue;
    QRegularExpressionMatch match =
        httpDateTail().match(text, comma + 1, QRegularExpression::NormalMatch,
                             QRegularExpression::AnchorAtOffsetMatchOption |
                                 QRegularExpression::DontCheckSubjectStringMatchOption);
    if (match.hasMatch()) return match;
  }
  return {};
}

// 1 to 12 for an English month abbreviation (case-sensitive), else 0.
int monthFromName(QStringView name) {
  static constexpr const char16_t* kNames[12] = {u"Jan", u"Feb", u"Mar", u"Apr", u"May", u"Jun",
                                                 u"Jul", u"Aug", u"Sep", u"Oct", u"Nov", u"Dec"};
  for (int i = 0; i < 12; ++i) {
    if (name == QStringView(kNames[i])) return i + 1;
  }
  return 0;
}

}  // namespace

QString DateTime::toString() const {
  char text[256];
  char* out = text;
  if (hour == 0 && minute == 0 && second == 0 && tzHours == 0 && tzMinutes == 0) {
    if (month == 1 && day == 1) {
      out = putPadded(out, year, 4);
    } else if (day == 1) {
      // The year fills both slots of "%04d-%02d": upper 32 bits, a dash, lower
      // 32 bits. Stored texts depend on it.
      const auto bits = static_cast<unsigned long long>(year);
      out = putPadded(out, static_cast<int>(bits >> 32), 4);
      *out++ = '-';
      out = putPadded(out, static_cast<int>(bits & 0xFFFFFFFFu), 2);
    } else {
      out = putDate(out, *this);
    }
    return QString::fromLatin1(text, out - text);
  }
  out = putDate(out, *this);
  *out++ = 'T';
  out = putPadded(out, hour, 2);
  *out++ = ':';
  out = putPadded(out, minute, 2);
  *out++ = ':';
  out = putPadded(out, second, 2);
  if (tzHours == 0 && tzMinutes == 0) {
    *out++ = 'Z';
  } else {
    *out++ = tzHours > 0 ? '+' : '-';
    out = putPadded(out, std::abs(tzHours), 2);
    *out++ = ':';
    out = putPadded(out, std::abs(tzMinutes), 2);
  }
  return QString::fromLatin1(text, out - text);
}

void DateTime::parseHttpDate(const QString& text) {
  const QRegularExpressionMatch match = matchHttpDate(text);
  // Reads a captured number into a field; false (field untouched) if it
  // does not fit an int.
  const auto read = [&match](int group, auto& field) {
    bool ok = false;
    const int v = match.capturedView(group).toInt(&ok, 10);
    if (ok) field = static_cast<std::remove_reference_t<decltype(field)>>(v);
    return ok;
  };
  if (match.hasMatch() && read(1, day)) {
    const int monthNumber = monthFromName(match.capturedView(2));
    if (monthNumber != 0) {
      month = static_cast<unsigned char>(monthNumber);
      if (read(3, year) && read(4, hour) && read(5, minute) && read(6, second)) {
        tzHours = 0;
        tzMinutes = 0;
        return;
      }
    }
  }
  year = kInvalidYear;
}

const QString& operator>>(const QString& text, DateTime& value) {
  if (!text.isNull()) IsoParser{text, value}.run();
  return text;
}

QTextStream& operator>>(QTextStream& in, DateTime& value) {
  QString word;
  in >> word;
  // QTextStream leaves the word null when no word is left; the reader takes
  // that as an empty word (which fails), never as "no text" (which would
  // leave the value as it was).
  if (word.isNull()) word = QString(QLatin1String(""));
  word >> value;
  return in;
}

QTextStream& operator<<(QTextStream& out, const DateTime& value) {
  return out << value.toString();
}

std::ostream& operator<<(std::ostream& out, const DateTime& value) {
  return out << value.toString().toLatin1().constData();
}

}  // namespace kestrel
