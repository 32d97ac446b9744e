// The regular expressions behind the coordinate parsers, built from a few
// named pieces so that every pattern reads the same way. The pieces are UTF-8
// text (the degree mark is U+00B0).
#include <kestrel/coordinates.h>

#include <QByteArray>

namespace kestrel {
namespace {

// A run of digits that is never split between two numbers.
constexpr char kWhole[] = "\\d+(?!\\d)";
// Whole digits with an optional decimal mark and fraction digits.
QByteArray decimal(bool comma) {
  return QByteArray(kWhole) + (comma ? "\\,?" : "\\.?") + "\\d*";
}
constexpr char kDegreeMark[] = "(?:\xC2\xB0)?";
constexpr char kMinuteMark[] = "[`']?";
constexpr char kSecondMark[] = "(?:\"|'')?";
constexpr char kBlanks[] = "\\s*";
// Between the two values of a pair: blanks with at most one ',' or '/'.
constexpr char kPairSeparator[] = "\\s*[,/]?\\s*";

QByteArray group(const QByteArray& body) {
  return "(?:" + body + ")";
}
QByteArray capture(const QByteArray& body) {
  return "(" + body + ")";
}

// One angle in any of its three notations, without captures (V, or Vc with
// comma decimals).
QByteArray anyAngle(bool comma) {
  const QByteArray whole = group(kWhole);
  const QByteArray dec = group(decimal(comma));
  return dec + kDegreeMark + "|" + whole + kDegreeMark + kBlanks + dec + kMinuteMark + "|" + whole +
         kDegreeMark + kBlanks + whole + kMinuteMark + kBlanks + dec + kSecondMark;
}

// A whole-text pattern. Unicode properties make \d and \s mean any decimal
// digit and any blank, as the application's older matcher read them.
QRegularExpression wholeText(const QByteArray& utf8) {
  QRegularExpression re(QRegularExpression::anchoredPattern(QString::fromUtf8(utf8)),
                        QRegularExpression::UseUnicodePropertiesOption);
  re.optimize();
  return re;
}

// The three pair forms over the angle capture `value`.
QByteArray pairDA(const QByteArray& value, const QByteArray& separator) {
  return value + kBlanks + "([NSEWnsew])" + separator + value + kBlanks + "([NSEWnsew])";
}
QByteArray pairDB(const QByteArray& value, const QByteArray& separator) {
  return "([NSEWnsew])" + QByteArray(kBlanks) + value + separator + "([NSEWnsew])" + kBlanks +
         value;
}
QByteArray pairSB(const QByteArray& value, const QByteArray& separator) {
  return "([-+])?" + QByteArray(kBlanks) + value + separator + "([-+])?" + kBlanks + value;
}

QString findPairPattern() {
  const QByteArray a = group(anyAngle(false));
  const QByteArray letter = "[NSEWnsew]";
  const QByteArray sign = "[-+]?";
  return QString::fromUtf8(capture(a + kBlanks + letter + kPairSeparator + a + kBlanks + letter +
                                   "|" + letter + kBlanks + a + kPairSeparator + letter + kBlanks +
                                   a + "|" + sign + kBlanks + a + kPairSeparator + sign + kBlanks +
                                   a));
}

}  // namespace

LatLngValuePatterns::LatLngValuePatterns()
    : pointDF(wholeText(capture(decimal(false)) + kDegreeMark)),
      pointDMF(wholeText(capture(kWhole) + kDegreeMark + kBlanks + capture(decimal(false)) +
                         kMinuteMark)),
      pointDMSF(wholeText(capture(kWhole) + kDegreeMark + kBlanks + capture(kWhole) + kMinuteMark +
                          kBlanks + capture(decimal(false)) + kSecondMark)),
      commaDF(wholeText(capture(kWhole) + "," + capture(kWhole) + kDegreeMark)),
      commaDMF(wholeText(capture(kWhole) + kDegreeMark + kBlanks + capture(kWhole) + "," +
                         capture(kWhole) + kMinuteMark)),
      commaDMSF(wholeText(capture(kWhole) + kDegreeMark + kBlanks + capture(kWhole) + kMinuteMark +
                          kBlanks + capture(kWhole) + "," + capture(kWhole) + kSecondMark)) {}

const LatLngValuePatterns* LatLngValuePatterns::GetSingleton() {
  static const LatLngValuePatterns patterns;
  return &patterns;
}

SignedAnglePatterns::SignedAnglePatterns(const char* letters)
    : directionAfter(wholeText(capture(anyAngle(false)) + kBlanks + "([" + letters + "])")),
      directionBefore(
          wholeText("([" + QByteArray(letters) + "])" + kBlanks + capture(anyAngle(false)))),
      signBefore(wholeText("([-+])?" + QByteArray(kBlanks) + capture(anyAngle(false)))) {}

LatValuePatterns::LatValuePatterns() : SignedAnglePatterns("NSns") {}

const LatValuePatterns* LatValuePatterns::GetSingleton() {
  static const LatValuePatterns patterns;
  return &patterns;
}

LngValuePatterns::LngValuePatterns() : SignedAnglePatterns("EWew") {}

const LngValuePatterns* LngValuePatterns::GetSingleton() {
  static const LngValuePatterns patterns;
  return &patterns;
}

LatLngPairPatterns::LatLngPairPatterns()
    : pointDA(wholeText(pairDA(capture(anyAngle(false)), kPairSeparator))),
      pointDB(wholeText(pairDB(capture(anyAngle(false)), kPairSeparator))),
      pointSB(wholeText(pairSB(capture(anyAngle(false)), kPairSeparator))),
      commaDA(wholeText(pairDA(capture(anyAngle(true)), kPairSeparator))),
      commaDB(wholeText(pairDB(capture(anyAngle(true)), kPairSeparator))),
      // Blanks only between the two values of this form (see the header).
      commaSB(wholeText(pairSB(capture(anyAngle(true)), kBlanks))) {}

const LatLngPairPatterns* LatLngPairPatterns::GetSingleton() {
  static const LatLngPairPatterns patterns;
  return &patterns;
}

const QString LatLngPair::kREPattern = findPairPattern();

}  // namespace kestrel
