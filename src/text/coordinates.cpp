// Coordinate parsers: each form first needs a whole-text match of its pattern,
// then converts and range-checks the captured numbers. Results are kept only
// when a form succeeds, and written to the caller only by ParseFrom.
#include <kestrel/coordinates.h>

#include <charconv>
#include <cmath>
#include <system_error>

namespace kestrel {
namespace {

// The number a capture holds (digits with at most one decimal point, or
// "0." and digits), as the locale-free text conversion reads it. Short
// texts of ASCII digits and points take the standard library's correctly
// rounded reader, which gives the same double and is many times faster;
// anything else (other digits, texts long enough to overflow) goes through
// QString's conversion.
bool toNumber(QStringView text, double* number) {
  constexpr qsizetype kShort = 24;  // neither overflows nor underflows a double
  if (text.size() <= kShort) {
    char ascii[kShort];
    qsizetype n = 0;
    for (QChar c : text) {
      if (!((c >= u'0' && c <= u'9') || c == u'.')) break;
      ascii[n++] = static_cast<char>(c.unicode());
    }
    if (n == text.size() && n > 0) {
      const std::from_chars_result r = std::from_chars(ascii, ascii + n, *number);
      if (r.ec == std::errc() && r.ptr == ascii + n) return true;
    }
  }
  bool ok = false;
  const double value = text.toDouble(&ok);
  if (ok) *number = value;
  return ok;
}

// Whole degrees and whole minutes: the number truncated toward zero, which
// must lie in 0 .. limit.
bool wholeInRange(QStringView digits, double limit, double* whole) {
  double value = 0.0;
  if (!toNumber(digits, &value)) return false;
  value = std::trunc(value);
  if (!(value >= 0.0 && value <= limit)) return false;
  *whole = value;
  return true;
}

bool numberInRange(QStringView text, double limit, double* number) {
  double value = 0.0;
  if (!toNumber(text, &value) || !(value >= 0.0 && value <= limit)) return false;
  *number = value;
  return true;
}

// The number "0.<digits>", or -1 when that is not a number.
double toFraction(QStringView digits) {
  QString text;
  text.reserve(digits.size() + 2);
  text.append(u"0.").append(digits);
  double fraction = 0.0;
  return toNumber(text, &fraction) ? fraction : -1.0;
}

// A comma fraction, which must lie in 0 .. 1 (so -1 fails).
bool fractionOf(QStringView digits, double* fraction) {
  const double value = toFraction(digits);
  if (!(value >= 0.0 && value <= 1.0)) return false;
  *fraction = value;
  return true;
}

// The characters \s stands for in the patterns: Unicode separators and the
// ASCII controls tab to carriage return.
bool isBlank(QChar c) {
  const char16_t u = c.unicode();
  return (u >= 0x09 && u <= 0x0D) || u == 0x20 || u == 0xA0 || u == 0x1680 ||
         (u >= 0x2000 && u <= 0x200A) || u == 0x2028 || u == 0x2029 || u == 0x202F || u == 0x205F ||
         u == 0x3000;
}

bool hasBlankRun(QStringView text) {
  for (qsizetype i = 1; i < text.size(); ++i) {
    if (isBlank(text[i]) && isBlank(text[i - 1])) return true;
  }
  return false;
}

// Whole-text match with every run of blanks cut to its first blank. Blanks
// occur in the patterns only as \s*, so a run matches exactly where a single
// blank does and the captures read as the same numbers; but a long run
// between two or three \s* would cost the backtracking matcher quadratic or
// cubic time.
QRegularExpressionMatch matchWhole(const QRegularExpression& pattern, QStringView text) {
  if (!hasBlankRun(text)) return pattern.match(text);
  QString compact;
  compact.reserve(text.size());
  for (qsizetype i = 0; i < text.size(); ++i) {
    if (i == 0 || !isBlank(text[i]) || !isBlank(text[i - 1])) compact.append(text[i]);
  }
  return pattern.match(compact);  // the match keeps its own copy of the subject
}

const QRegularExpression& pick(bool comma, const QRegularExpression& point,
                               const QRegularExpression& commaForm) {
  return comma ? commaForm : point;
}

bool angleDF(const LatLngValuePatterns& p, QStringView text, bool comma, double* value) {
  const QRegularExpressionMatch m = matchWhole(pick(comma, p.pointDF, p.commaDF), text);
  if (!m.hasMatch()) return false;
  double degrees = 0.0;
  if (!numberInRange(m.capturedView(1), 180.0, &degrees)) return false;
  double fraction = 0.0;
  if (comma && !fractionOf(m.capturedView(2), &fraction)) return false;
  // The range test comes before the fraction is added: "180,5" is 180.5.
  *value = degrees + fraction;
  return true;
}

bool angleDMF(const LatLngValuePatterns& p, QStringView text, bool comma, double* value) {
  const QRegularExpressionMatch m = matchWhole(pick(comma, p.pointDMF, p.commaDMF), text);
  if (!m.hasMatch()) return false;
  double degrees = 0.0, minutes = 0.0, fraction = 0.0;
  if (!wholeInRange(m.capturedView(1), 180.0, &degrees) ||
      !numberInRange(m.capturedView(2), 60.0, &minutes))
    return false;
  if (comma && !fractionOf(m.capturedView(3), &fraction)) return false;
  *value = degrees + (minutes + fraction) / 60.0;
  return true;
}

bool angleDMSF(const LatLngValuePatterns& p, QStringView text, bool comma, double* value) {
  const QRegularExpressionMatch m = matchWhole(pick(comma, p.pointDMSF, p.commaDMSF), text);
  if (!m.hasMatch()) return false;
  double degrees = 0.0, minutes = 0.0, seconds = 0.0, fraction = 0.0;
  if (!wholeInRange(m.capturedView(1), 180.0, &degrees) ||
      !wholeInRange(m.capturedView(2), 60.0, &minutes) ||
      !numberInRange(m.capturedView(3), 60.0, &seconds))
    return false;
  if (comma && !fractionOf(m.capturedView(4), &fraction)) return false;
  *value = degrees + minutes / 60.0 + (seconds + fraction) / 3600.0;
  return true;
}

// The one angle form a text can be in. Every angle pattern fixes whether a
// comma occurs (the comma forms need one, the point forms allow none) and how
// many numbers do not follow the decimal mark (1 DF, 2 DMF, 3 DMSF), so the
// six forms never match the same text and trying only that one gives what
// trying all six in order gives. Digits other than ASCII ones never convert,
// so miscounting them changes no result.
bool parseAngle(QStringView text, double* value) {
  const bool comma = text.contains(u',');
  const QChar decimalMark = comma ? u',' : u'.';
  int numbers = 0;
  for (qsizetype i = 0; i < text.size(); ++i) {
    const bool digit = text[i] >= u'0' && text[i] <= u'9';
    const bool startsRun = i == 0 || !(text[i - 1] >= u'0' && text[i - 1] <= u'9');
    if (digit && startsRun && (i == 0 || text[i - 1] != decimalMark)) ++numbers;
  }
  const LatLngValuePatterns& p = *LatLngValuePatterns::GetSingleton();
  switch (numbers) {
    case 1:
      return angleDF(p, text, comma, value);
    case 2:
      return angleDMF(p, text, comma, value);
    case 3:
      return angleDMSF(p, text, comma, value);
    default:
      return false;
  }
}

// Character tests on the first character of a capture; an empty capture is a
// valid sign and positive.
QChar firstOf(QStringView capture) {
  return capture.isEmpty() ? QChar() : capture.front();
}
bool isValidSign(QStringView capture) {
  const QChar c = firstOf(capture);
  return c.isNull() || c == u'+' || c == u'-';
}
bool isNegative(QStringView capture) {
  const QChar c = firstOf(capture);
  return c == u'-' || c == u'S' || c == u's' || c == u'W' || c == u'w';
}
bool isLatitudeLetter(QStringView capture) {
  const QChar c = firstOf(capture);
  return c == u'N' || c == u'n' || c == u'S' || c == u's';
}
bool isLongitudeLetter(QStringView capture) {
  const QChar c = firstOf(capture);
  return c == u'E' || c == u'e' || c == u'W' || c == u'w';
}
bool isDirectionLetter(QStringView capture) {
  return isLatitudeLetter(capture) || isLongitudeLetter(capture);
}

// Which forms can match at all, from the first and the last character: the
// letter-after forms end with their letter, the letter-before forms start
// with it, and the sign forms neither start nor end with a letter.
struct LetterPlaces {
  bool first;
  bool last;
};
LetterPlaces letterPlaces(QStringView text) {
  if (text.isEmpty()) return {false, false};
  return {isDirectionLetter(text.first(1)), isDirectionLetter(text.last(1))};
}

// An angle capture with its letter or sign capture, made negative where the
// mark says so. `sign` tells which test the mark must pass.
bool signedAngle(const QRegularExpressionMatch& m, int valueGroup, int markGroup, bool sign,
                 double* value) {
  const QStringView mark = m.capturedView(markGroup);
  if (!(sign ? isValidSign(mark) : isDirectionLetter(mark))) return false;
  double angle = 0.0;
  if (!parseAngle(m.capturedView(valueGroup), &angle)) return false;
  *value = isNegative(mark) ? -angle : angle;
  return true;
}

bool signedForm(const QRegularExpression& pattern, QStringView text, int valueGroup, int markGroup,
                bool sign, double* value) {
  const QRegularExpressionMatch m = matchWhole(pattern, text);
  return m.hasMatch() && signedAngle(m, valueGroup, markGroup, sign, value);
}

// A pair with hemisphere letters: one latitude and one longitude letter, in
// either order.
bool letteredPair(const QRegularExpression& pattern, QStringView text, int firstValue,
                  int firstLetter, int secondValue, int secondLetter, double* latitude,
                  double* longitude) {
  const QRegularExpressionMatch m = matchWhole(pattern, text);
  double first = 0.0, second = 0.0;
  if (!m.hasMatch() || !signedAngle(m, firstValue, firstLetter, false, &first) ||
      !signedAngle(m, secondValue, secondLetter, false, &second))
    return false;
  const QStringView a = m.capturedView(firstLetter);
  const QStringView b = m.capturedView(secondLetter);
  if (isLatitudeLetter(a) && isLongitudeLetter(b)) {
    *latitude = first;
    *longitude = second;
  } else if (isLongitudeLetter(a) && isLatitudeLetter(b)) {
    *latitude = second;
    *longitude = first;
  } else {
    return false;
  }
  return true;
}

bool signedPair(const QRegularExpression& pattern, QStringView text, double* latitude,
                double* longitude) {
  const QRegularExpressionMatch m = matchWhole(pattern, text);
  double first = 0.0, second = 0.0;
  if (!m.hasMatch() || !signedAngle(m, 2, 1, true, &first) || !signedAngle(m, 4, 3, true, &second))
    return false;
  *latitude = first;
  *longitude = second;
  return true;
}

}  // namespace

// --- LatLngValue ------------------------------------------------------------

LatLngValue::LatLngValue() : LatLngValue(nullptr) {}

LatLngValue::LatLngValue(double* degrees)
    : mOutput(degrees), mValue(0.0), mPatterns(LatLngValuePatterns::GetSingleton()) {}

bool LatLngValue::Parse(const QString& text, double* degrees) {
  return LatLngValue(degrees).ParseFrom(text);
}

bool LatLngValue::ParseFrom(const QString& text) {
  if (!parseAngle(text, &mValue)) return false;
  if (mOutput) *mOutput = mValue;
  return true;
}

bool LatLngValue::TryDF(const QString& text, bool comma) {
  return angleDF(*mPatterns, text, comma, &mValue);
}

bool LatLngValue::TryDMF(const QString& text, bool comma) {
  return angleDMF(*mPatterns, text, comma, &mValue);
}

bool LatLngValue::TryDMSF(const QString& text, bool comma) {
  return angleDMSF(*mPatterns, text, comma, &mValue);
}

double LatLngValue::ConvertToFraction(const QString& digits) {
  return toFraction(digits);
}

// --- LatValue, LngValue -------------------------------------------------------

SignedAngleValue::SignedAngleValue(double* output, const SignedAnglePatterns* patterns)
    : mOutput(output), mValue(0.0), mPatterns(patterns) {}

bool SignedAngleValue::ParseFrom(const QString& text) {
  const LetterPlaces letters = letterPlaces(text);
  const bool found = (letters.last && TryDA(text)) || (letters.first && TryDB(text)) ||
                     (!letters.first && !letters.last && TrySB(text));
  if (!found) return false;
  if (mOutput) *mOutput = mValue;
  return true;
}

bool SignedAngleValue::TryDA(const QString& text) {
  return signedForm(mPatterns->directionAfter, text, 1, 2, false, &mValue);
}

bool SignedAngleValue::TryDB(const QString& text) {
  return signedForm(mPatterns->directionBefore, text, 2, 1, false, &mValue);
}

bool SignedAngleValue::TrySB(const QString& text) {
  return signedForm(mPatterns->signBefore, text, 2, 1, true, &mValue);
}

LatValue::LatValue() : LatValue(nullptr) {}
LatValue::LatValue(double* latitude)
    : SignedAngleValue(latitude, LatValuePatterns::GetSingleton()) {}
bool LatValue::Parse(const QString& text, double* latitude) {
  return LatValue(latitude).ParseFrom(text);
}

LngValue::LngValue() : LngValue(nullptr) {}
LngValue::LngValue(double* longitude)
    : SignedAngleValue(longitude, LngValuePatterns::GetSingleton()) {}
bool LngValue::Parse(const QString& text, double* longitude) {
  return LngValue(longitude).ParseFrom(text);
}

// --- LatLngPair -----------------------------------------------------------------

LatLngPair::LatLngPair() : LatLngPair(nullptr, nullptr) {}

LatLngPair::LatLngPair(double* latitude, double* longitude)
    : mLatitudeOutput(latitude),
      mLongitudeOutput(longitude),
      mLatitude(0.0),
      mLongitude(0.0),
      mPatterns(LatLngPairPatterns::GetSingleton()) {}

bool LatLngPair::Parse(const QString& text, double* latitude, double* longitude) {
  return LatLngPair(latitude, longitude).ParseFrom(text);
}

bool LatLngPair::ParseFrom(const QString& text) {
  const LetterPlaces letters = letterPlaces(text);
  bool found = false;
  for (bool comma : {false, true}) {
    found = (letters.last && TryDA(text, comma)) || (letters.first && TryDB(text, comma)) ||
            (!letters.first && !letters.last && TrySB(text, comma));
    if (found) break;
  }
  // Only the first form that reads the text counts: its latitude must fit.
  if (!found || !(mLatitude >= -90.0 && mLatitude <= 90.0)) return false;
  if (mLatitudeOutput) *mLatitudeOutput = mLatitude;
  if (mLongitudeOutput) *mLongitudeOutput = mLongitude;
  return true;
}

bool LatLngPair::TryDA(const QString& text, bool comma) {
  return letteredPair(comma ? mPatterns->commaDA : mPatterns->pointDA, text, 1, 2, 3, 4, &mLatitude,
                      &mLongitude);
}

bool LatLngPair::TryDB(const QString& text, bool comma) {
  return letteredPair(comma ? mPatterns->commaDB : mPatterns->pointDB, text, 2, 1, 4, 3, &mLatitude,
                      &mLongitude);
}

bool LatLngPair::TrySB(const QString& text, bool comma) {
  return signedPair(comma ? mPatterns->commaSB : mPatterns->pointSB, text, &mLatitude, &mLongitude);
}

}  // namespace kestrel
