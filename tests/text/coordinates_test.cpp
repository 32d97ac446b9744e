// Coordinate text: angles, latitudes, longitudes, pairs, the pair-finding
// pattern and the map zoom conversions.
#include <kestrel/coordinates.h>

#include <gtest/gtest.h>
#include <GeographicLib/DMS.hpp>

#include <QRegularExpression>

#include <atomic>
#include <chrono>
#include <cmath>
#include <optional>
#include <string>
#include <thread>
#include <vector>

namespace kestrel {
namespace {

constexpr double kUntouched = -12345.0;  // what an output holds before a failed parse

QString text(const char* utf8) {
  return QString::fromUtf8(utf8);
}

// GoogleTest names may hold only letters, digits and '_'.
std::string readableName(const char* utf8, size_t index) {
  std::string name = std::to_string(index) + "_";
  for (const char* c = utf8; *c; ++c) {
    const unsigned char u = static_cast<unsigned char>(*c);
    name += std::isalnum(u) ? static_cast<char>(u) : '_';
  }
  return name;
}

// --- The patterns, as the application's other code and users rely on them ---

// The pieces written out once, as their readers know them.
const char kV[] =
    "(?:\\d+(?!\\d)\\.?\\d*)(?:\xC2\xB0)?|(?:\\d+(?!\\d))(?:\xC2\xB0)?\\s*(?:\\d+(?!\\d)\\.?\\d*)[`"
    "']?|(?:\\d+(?!\\d))(?:\xC2\xB0)?\\s*(?:\\d+(?!\\d))[`']?\\s*(?:\\d+(?!\\d)\\.?\\d*)(?:\"|'')"
    "?";

TEST(CoordinatePatterns, PairFinderIsBuiltFromTheAngleNotation) {
  const QString v = text(kV);
  const QString p = "(" + v + ")";
  EXPECT_EQ(p.size(), 146);
  const QString a = "(?:" + v + ")";
  const QString expected = "(" + a + "\\s*[NSEWnsew]\\s*[,/]?\\s*" + a + "\\s*[NSEWnsew]|" +
                           "[NSEWnsew]\\s*" + a + "\\s*[,/]?\\s*[NSEWnsew]\\s*" + a + "|" +
                           "[-+]?\\s*" + a + "\\s*[,/]?\\s*[-+]?\\s*" + a + ")";
  EXPECT_EQ(LatLngPair::kREPattern, expected);
  EXPECT_EQ(LatLngPair::kREPattern.size(), 993);
}

TEST(CoordinatePatterns, PairFinderFindsAPairInsideText) {
  const QRegularExpression finder(LatLngPair::kREPattern);
  ASSERT_TRUE(finder.isValid());
  const struct {
    const char* haystack;
    const char* pair;
  } rows[] = {
      {"(37.42N, 122.08W)", "37.42N, 122.08W"},
      // Leftmost match first: from the blank, the sign form already finds
      // " 37.4" and "2", before the letter form could start at the digit.
      {"meet at 37.42N, 122.08W", "37.42"},
      {"see N 45 / E 7 here", "N 45 / E 7"},
      {"go to -33.9 151.2 now", "-33.9 151.2"},
  };
  for (const auto& row : rows) {
    const QRegularExpressionMatch m = finder.match(text(row.haystack));
    ASSERT_TRUE(m.hasMatch()) << row.haystack;
    EXPECT_EQ(m.lastCapturedIndex(), 1);
    EXPECT_EQ(m.captured(1).trimmed(), text(row.pair)) << row.haystack;
  }
}

// Each singleton holds its patterns in the documented order with the
// documented text, matched against the whole text only.
TEST(CoordinatePatterns, SingletonsHoldTheFormsInOrder) {
  const QString v = text(kV);
  const QString p = "(" + v + ")";
  const QString pc = QString(p).replace("\\.?", "\\,?");
  const auto whole = [](const QString& body) { return QRegularExpression::anchoredPattern(body); };
  const LatLngValuePatterns* angle = LatLngValuePatterns::GetSingleton();
  ASSERT_EQ(angle, LatLngValuePatterns::GetSingleton());
  const QString deg = text("(?:\xC2\xB0)?");
  EXPECT_EQ(angle->pointDF.pattern(), whole("(\\d+(?!\\d)\\.?\\d*)" + deg));
  EXPECT_EQ(angle->pointDMF.pattern(),
            whole("(\\d+(?!\\d))" + deg + "\\s*(\\d+(?!\\d)\\.?\\d*)[`']?"));
  EXPECT_EQ(
      angle->pointDMSF.pattern(),
      whole("(\\d+(?!\\d))" + deg + "\\s*(\\d+(?!\\d))[`']?\\s*(\\d+(?!\\d)\\.?\\d*)(?:\"|'')?"));
  EXPECT_EQ(angle->commaDF.pattern(), whole("(\\d+(?!\\d)),(\\d+(?!\\d))" + deg));
  EXPECT_EQ(angle->commaDMF.pattern(),
            whole("(\\d+(?!\\d))" + deg + "\\s*(\\d+(?!\\d)),(\\d+(?!\\d))[`']?"));
  EXPECT_EQ(angle->commaDMSF.pattern(),
            whole("(\\d+(?!\\d))" + deg +
                  "\\s*(\\d+(?!\\d))[`']?\\s*(\\d+(?!\\d)),(\\d+(?!\\d))(?:\"|'')?"));

  const LatValuePatterns* lat = LatValuePatterns::GetSingleton();
  EXPECT_EQ(lat->directionAfter.pattern(), whole(p + "\\s*([NSns])"));
  EXPECT_EQ(lat->directionBefore.pattern(), whole("([NSns])\\s*" + p));
  EXPECT_EQ(lat->signBefore.pattern(), whole("([-+])?\\s*" + p));
  const LngValuePatterns* lng = LngValuePatterns::GetSingleton();
  EXPECT_EQ(lng->directionAfter.pattern(), whole(p + "\\s*([EWew])"));
  EXPECT_EQ(lng->directionBefore.pattern(), whole("([EWew])\\s*" + p));
  EXPECT_EQ(lng->signBefore.pattern(), whole("([-+])?\\s*" + p));

  const LatLngPairPatterns* pair = LatLngPairPatterns::GetSingleton();
  const auto da = [](const QString& x, const QString& sep) {
    return x + "\\s*([NSEWnsew])" + sep + x + "\\s*([NSEWnsew])";
  };
  const auto db = [](const QString& x, const QString& sep) {
    return "([NSEWnsew])\\s*" + x + sep + "([NSEWnsew])\\s*" + x;
  };
  const auto sb = [](const QString& x, const QString& sep) {
    return "([-+])?\\s*" + x + sep + "([-+])?\\s*" + x;
  };
  const QString sep = "\\s*[,/]?\\s*";
  EXPECT_EQ(pair->pointDA.pattern(), whole(da(p, sep)));
  EXPECT_EQ(pair->pointDB.pattern(), whole(db(p, sep)));
  EXPECT_EQ(pair->pointSB.pattern(), whole(sb(p, sep)));
  EXPECT_EQ(pair->commaDA.pattern(), whole(da(pc, sep)));
  EXPECT_EQ(pair->commaDB.pattern(), whole(db(pc, sep)));
  // Deliberately no ',' or '/' between the values of this form.
  EXPECT_EQ(pair->commaSB.pattern(), whole(sb(pc, "\\s*")));
}

// --- Angles ---------------------------------------------------------------

struct Row {
  const char* input;
  std::optional<double> expected;  // nullopt: rejected
};

const double k37_25_19_5 = 37.0 + 25.0 / 60.0 + 19.5 / 3600.0;

const Row kAngleRows[] = {
    // decimal degrees
    {"37.4219", 37.4219},
    {"0", 0.0},
    {"180", 180.0},
    {"37.", 37.0},
    {"007.50", 7.5},
    {"37.4219\xC2\xB0", 37.4219},
    {"37,5", 37.5},
    {"180,5", 180.5},  // range test before the fraction is added
    // degrees and minutes
    {"37\xC2\xB0"
     "25.5'",
     37.425},
    {"37 25.5`", 37.425},
    {"12 60", 13.0},
    {"12\t\t 30", 12.5},
    {"37\xC2\xB0"
     "25,5'",
     37.425},
    {"180 60", 181.0},
    // degrees, minutes and seconds
    {"37\xC2\xB0"
     "25'19.5\"",
     k37_25_19_5},
    {"37 25`19.5''", k37_25_19_5},
    {"37\xC2\xB0"
     "25'19,5\"",
     k37_25_19_5},
    {"10 60 60", 10.0 + 1.0 + 60.0 / 3600.0},
    // Unicode blanks read as blanks
    {"37\xC2\xA0"
     "25",
     37.0 + 25.0 / 60.0},
    // rejections: range
    {"181", std::nullopt},
    {"180.0001", std::nullopt},
    {"181,5", std::nullopt},
    {"12 61", std::nullopt},
    {"12 60.5", std::nullopt},
    {"12 30 61", std::nullopt},
    {"12 30 60.01", std::nullopt},
    // rejections: shape
    {"", std::nullopt},
    {" 37", std::nullopt},
    {"37 ", std::nullopt},
    {"-37", std::nullopt},
    {"37N", std::nullopt},
    {".5", std::nullopt},
    {"37.5.5", std::nullopt},
    {"37,", std::nullopt},
    {"37.5,5", std::nullopt},
    {"37\xC2\xB0\xC2\xB0", std::nullopt},
    {"37 25''", std::nullopt},
    {"37 25 19\"\"", std::nullopt},
    {"37 25 19 5", std::nullopt},
    {"37'25", std::nullopt},
    {"1e2", std::nullopt},
    {"\xD9\xA3\xD9\xA7", std::nullopt},  // other scripts' digits are no numbers
};

// Each single form reads its own notation only; comma picks the comma variant.
TEST(AngleForms, EachFormReadsOnlyItsNotation) {
  enum Form { DF, DMF, DMSF };
  const struct {
    const char* input;
    Form form;
    bool comma;
    double value;
  } rows[] = {
      {"37.5", DF, false, 37.5},        {"37,5", DF, true, 37.5},
      {"37 30", DMF, false, 37.5},      {"37 30,5", DMF, true, 37.0 + 30.5 / 60.0},
      {"37 30 36", DMSF, false, 37.51}, {"37 30 36,5", DMSF, true, 37.0 + 0.5 + 36.5 / 3600.0},
  };
  for (const auto& row : rows) {
    for (Form form : {DF, DMF, DMSF}) {
      for (bool comma : {false, true}) {
        LatLngValue parser;
        const QString input = text(row.input);
        const bool ok = form == DF    ? parser.TryDF(input, comma)
                        : form == DMF ? parser.TryDMF(input, comma)
                                      : parser.TryDMSF(input, comma);
        const bool expected = form == row.form && comma == row.comma;
        EXPECT_EQ(ok, expected) << row.input << " form " << form << " comma " << comma;
        EXPECT_DOUBLE_EQ(parser.getValue(), expected ? row.value : 0.0) << row.input;
      }
    }
  }
}

TEST(AngleForms, TryDoesNotWriteThroughTheOutput) {
  double out = kUntouched;
  LatLngValue parser(&out);
  ASSERT_TRUE(parser.TryDF(text("12.5"), false));
  EXPECT_EQ(parser.getValue(), 12.5);
  EXPECT_EQ(out, kUntouched);
  // A failing form keeps the last value.
  EXPECT_FALSE(parser.TryDF(text("200"), false));
  EXPECT_EQ(parser.getValue(), 12.5);
}

TEST(AngleForms, ConvertToFractionReadsDigitsAfterThePoint) {
  const struct {
    const char* digits;
    double expected;
  } rows[] = {
      {"5", 0.5},  {"25", 0.25},  {"000", 0.0}, {"9999999999999999999", 1.0},
      {"", 0.0},  // "0." is a number
      {"x", -1.0}, {"5.5", -1.0}, {"-5", -1.0},
  };
  for (const auto& row : rows) {
    EXPECT_DOUBLE_EQ(LatLngValue::ConvertToFraction(text(row.digits)), row.expected) << row.digits;
  }
}

// The angle values agree with an independent reader of the same notations.
TEST(AngleValues, AgreeWithGeographicLib) {
  int compared = 0;
  for (int degrees = 0; degrees <= 180; degrees += 7) {
    for (int minutes : {0, 1, 29, 59}) {  // the peer takes minutes below 60 only
      for (double seconds : {0.0, 0.5, 19.25, 59.999}) {
        const std::string d = std::to_string(degrees), m = std::to_string(minutes);
        const QString s = QString::number(seconds, 'f', 3);
        const std::string forms[] = {
            d + "\xC2\xB0" + m + "'" + s.toStdString() + "\"",
            d + "d" + m + "'" + s.toStdString() + "\"",
        };
        GeographicLib::DMS::flag ind;
        const double peer = GeographicLib::DMS::Decode(forms[1], ind);
        double ours = kUntouched;
        ASSERT_TRUE(LatLngValue::Parse(QString::fromStdString(forms[0]), &ours)) << forms[0];
        EXPECT_NEAR(ours, peer, 1e-12) << forms[0];
        // The same with minutes only and with decimal degrees.
        const QString minutesForm = QString::number(degrees) + QChar(0xB0) +
                                    QString::number(minutes + seconds / 60.0, 'f', 6) + "'";
        ASSERT_TRUE(LatLngValue::Parse(minutesForm, &ours)) << minutesForm.toStdString();
        EXPECT_NEAR(ours, GeographicLib::DMS::Decode(minutesForm.toStdString(), ind), 1e-12);
        const QString decimal =
            QString::number(degrees + minutes / 60.0 + seconds / 3600.0, 'f', 9);
        if (LatLngValue::Parse(decimal, &ours)) {
          EXPECT_NEAR(ours, GeographicLib::DMS::Decode(decimal.toStdString(), ind), 1e-12);
        } else {
          EXPECT_GT(decimal.toDouble(), 180.0) << decimal.toStdString();
        }
        ++compared;
      }
    }
  }
  EXPECT_EQ(compared, 26 * 4 * 4);
}

// --- Latitudes and longitudes --------------------------------------------------

const Row kLatitudeRows[] = {
    {"45N", 45.0},
    {"45 n", 45.0},
    {"45S", -45.0},
    {"s 33.9", -33.9},
    {"N 37\xC2\xB0"
     "25'19.5\"",
     k37_25_19_5},
    {"37\xC2\xB0"
     "25'19.5\" S",
     -k37_25_19_5},
    {"37,5 N", std::nullopt},  // point decimals only
    {"-33.9", -33.9},
    {"+33.9", 33.9},
    {"- 33.9", -33.9},
    {" 33.9", 33.9},  // the blanks of the sign form take leading blanks
    {"95N", 95.0},    // no latitude range test here
    {"122.08W", std::nullopt},
    {"E 10", std::nullopt},
    {"45N ", std::nullopt},
    {" 45N", std::nullopt},
    {"N45S", std::nullopt},
    {"--45", std::nullopt},
    {"45-", std::nullopt},
    {"-181", std::nullopt},
    {"12 61 N", std::nullopt},
    {"", std::nullopt},
};

const Row kLongitudeRows[] = {
    {"122.08W", -122.08},
    {"E 10", 10.0},
    {"e10.5", 10.5},
    {"W 8 30", -8.5},
    {"-122.08", -122.08},
    {"180E", 180.0},
    {"179 59 59.5 W", -(179.0 + 59.0 / 60.0 + 59.5 / 3600.0)},
    {"45N", std::nullopt},
    {"s 33.9", std::nullopt},
    {"181E", std::nullopt},
    {"122.08WW", std::nullopt},
    {"W-122", std::nullopt},
    {"", std::nullopt},
};

enum class Kind { kAngle, kLatitude, kLongitude };

struct ParseCase {
  Kind kind;
  Row row;
};

void PrintTo(const ParseCase& c, std::ostream* out) {
  *out << '"' << c.row.input << '"';
}

bool parseAs(Kind kind, const QString& input, double* value) {
  return kind == Kind::kAngle      ? LatLngValue::Parse(input, value)
         : kind == Kind::kLatitude ? LatValue::Parse(input, value)
                                   : LngValue::Parse(input, value);
}

class SingleValueText : public ::testing::TestWithParam<ParseCase> {};

TEST_P(SingleValueText, ParsesOrLeavesOutputUntouched) {
  const ParseCase& c = GetParam();
  const QString input = text(c.row.input);
  double value = kUntouched;
  const bool ok = parseAs(c.kind, input, &value);
  ASSERT_EQ(ok, c.row.expected.has_value());
  if (ok) {
    EXPECT_DOUBLE_EQ(value, *c.row.expected);
  } else {
    EXPECT_EQ(value, kUntouched);
  }
  EXPECT_EQ(parseAs(c.kind, input, nullptr), ok);
  if (c.kind != Kind::kAngle) return;
  // A parser object keeps the value and writes it only through ParseFrom.
  double written = kUntouched;
  LatLngValue parser(&written);
  EXPECT_EQ(parser.ParseFrom(input), ok);
  if (ok) {
    EXPECT_EQ(parser.getValue(), value);
    EXPECT_EQ(written, value);
  }
}

std::vector<ParseCase> parseCases() {
  std::vector<ParseCase> cases;
  for (const Row& row : kAngleRows) cases.push_back({Kind::kAngle, row});
  for (const Row& row : kLatitudeRows) cases.push_back({Kind::kLatitude, row});
  for (const Row& row : kLongitudeRows) cases.push_back({Kind::kLongitude, row});
  return cases;
}

std::string caseName(const ::testing::TestParamInfo<ParseCase>& info) {
  static const char* const kPrefix[] = {"angle_", "lat_", "lng_"};
  return kPrefix[static_cast<int>(info.param.kind)] +
         readableName(info.param.row.input, info.index);
}

INSTANTIATE_TEST_SUITE_P(Forms, SingleValueText, ::testing::ValuesIn(parseCases()), caseName);

TEST(SignedAngleForms, EachFormReadsOnlyItsNotation) {
  const struct {
    const char* input;
    int form;  // 0 DA, 1 DB, 2 SB
    double value;
  } rows[] = {{"10S", 0, -10.0}, {"S10", 1, -10.0}, {"-10", 2, -10.0}, {"10", 2, 10.0}};
  for (const auto& row : rows) {
    LatValue parser;
    const QString input = text(row.input);
    EXPECT_EQ(parser.TryDA(input), row.form == 0) << row.input;
    EXPECT_EQ(parser.TryDB(input), row.form == 1) << row.input;
    EXPECT_EQ(parser.TrySB(input), row.form == 2) << row.input;
    EXPECT_EQ(parser.getValue(), row.value) << row.input;
  }
}

// --- Pairs ---------------------------------------------------------------------

struct PairRow {
  const char* input;
  bool ok;
  double latitude;
  double longitude;
};

void PrintTo(const PairRow& row, std::ostream* out) {
  *out << '"' << row.input << '"';
}

const PairRow kPairRows[] = {
    // letters after
    {"37.42N, 122.08W", true, 37.42, -122.08},
    {"37.42N/122.08W", true, 37.42, -122.08},
    {"37.42 n , 122.08 w", true, 37.42, -122.08},
    {"122.08W 37.42N", true, 37.42, -122.08},
    {"122.08E, 37.42S", true, -37.42, 122.08},
    {"37\xC2\xB0"
     "25'19.5\"N 122\xC2\xB0"
     "5'W",
     true, k37_25_19_5, -(122.0 + 5.0 / 60.0)},
    // letters before
    {"N37.42 W122.08", true, 37.42, -122.08},
    {"W122.08/N37.42", true, 37.42, -122.08},
    {"s 10 30 e 20 15", true, -10.5, 20.25},
    // signs
    {"-37.42/+122.08", true, -37.42, 122.08},
    {"+ 37.42 , - 122.08", true, 37.42, -122.08},
    {"37,5", true, 37.0, 5.0},  // point forms come first: a pair, not 37.5
    {"12 30 45 10", true, 12.0, 30.0 + 45.0 / 60.0 + 10.0 / 3600.0},
    {"37.4219", true, 37.421, 9.0},  // the matcher splits the digits where it can
    {"90 180", true, 90.0, 180.0},
    // comma decimals
    {"37,42N 122,08W", true, 37.42, -122.08},
    {"N37,42 W122,08", true, 37.42, -122.08},
    {"+12,5 -3,25", true, 12.5, -3.25},
    // rejections
    {"+12,5 / -3,25", false, 0, 0},  // the comma sign form takes no separator
    {"37.42N 10N", false, 0, 0},
    {"10E 20W", false, 0, 0},
    {"10E 95N", false, 0, 0},
    {"-90.5 10", false, 0, 0},
    {"37.42N", false, 0, 0},
    {"37", false, 0, 0},  // digits are never split between two numbers
    {"37.42N, 122.08W ", false, 0, 0},
    {" 37.42N, 122.08W", false, 0, 0},
    {"37.42N,, 122.08W", false, 0, 0},
    {"37.42N; 122.08W", false, 0, 0},
    {"37.42N 122.08", false, 0, 0},
    {"N37.42 122.08W", false, 0, 0},
    {"37.42 - -122.08", false, 0, 0},
    {"181 0", false, 0, 0},
    {"12 61N 10E", false, 0, 0},
    {"", false, 0, 0},
};

class PairText : public ::testing::TestWithParam<PairRow> {};

TEST_P(PairText, ParsesOrLeavesOutputsUntouched) {
  const PairRow& row = GetParam();
  double latitude = kUntouched, longitude = kUntouched;
  const bool ok = LatLngPair::Parse(text(row.input), &latitude, &longitude);
  ASSERT_EQ(ok, row.ok) << row.input;
  if (ok) {
    EXPECT_DOUBLE_EQ(latitude, row.latitude) << row.input;
    EXPECT_DOUBLE_EQ(longitude, row.longitude) << row.input;
  } else {
    EXPECT_EQ(latitude, kUntouched) << row.input;
    EXPECT_EQ(longitude, kUntouched) << row.input;
  }
  // Either output may be null.
  double only = kUntouched;
  EXPECT_EQ(LatLngPair::Parse(text(row.input), &only, nullptr), ok);
  EXPECT_EQ(only, ok ? row.latitude : kUntouched);
  only = kUntouched;
  EXPECT_EQ(LatLngPair::Parse(text(row.input), nullptr, &only), ok);
  EXPECT_EQ(only, ok ? row.longitude : kUntouched);
}

INSTANTIATE_TEST_SUITE_P(Forms, PairText, ::testing::ValuesIn(kPairRows), [](const auto& row_info) {
  return readableName(row_info.param.input, row_info.index);
});

TEST(PairForms, EachFormReadsOnlyItsNotation) {
  const struct {
    const char* input;
    int form;  // 0 DA, 1 DB, 2 SB
    bool comma;
  } rows[] = {{"1N 2E", 0, false},    {"N1 E2", 1, false},    {"1 2", 2, false},
              {"1,5N 2,5E", 0, true}, {"N1,5 E2,5", 1, true}, {"1,5 2,5", 2, true}};
  for (const auto& row : rows) {
    for (int form = 0; form < 3; ++form) {
      for (bool comma : {false, true}) {
        LatLngPair parser;
        const QString input = text(row.input);
        const bool ok = form == 0   ? parser.TryDA(input, comma)
                        : form == 1 ? parser.TryDB(input, comma)
                                    : parser.TrySB(input, comma);
        // The comma patterns also read point-free text such as "1N 2E".
        const bool commaReadsPlain = comma && !row.comma && form == row.form;
        EXPECT_EQ(ok, (form == row.form && comma == row.comma) || commaReadsPlain)
            << row.input << " form " << form << " comma " << comma;
      }
    }
  }
}

TEST(PairForms, TryKeepsLatitudeOutOfRangeButParseRejectsIt) {
  double latitude = kUntouched, longitude = kUntouched;
  LatLngPair parser(&latitude, &longitude);
  ASSERT_TRUE(parser.TryDA(text("95N 10E"), false));
  EXPECT_EQ(parser.getLatitude(), 95.0);
  EXPECT_EQ(parser.getLongitude(), 10.0);
  EXPECT_EQ(latitude, kUntouched);
  EXPECT_FALSE(parser.ParseFrom(text("95N 10E")));
  EXPECT_EQ(latitude, kUntouched);
  EXPECT_EQ(longitude, kUntouched);
  ASSERT_TRUE(parser.ParseFrom(text("45N 10E")));
  EXPECT_EQ(latitude, 45.0);
  EXPECT_EQ(longitude, 10.0);
}

// --- Bad input -----------------------------------------------------------------

std::vector<QString> hostileInputs() {
  std::vector<QString> inputs;
  const QString blanks(10000, QLatin1Char(' '));
  inputs.push_back("1" + blanks + "x");
  inputs.push_back(blanks.left(5000) + "1" + blanks.left(5000) + "x");
  inputs.push_back("1" + blanks.left(3000) + "," + blanks.left(3000) + "-" + blanks.left(3000) +
                   "x");
  inputs.push_back("N" + blanks + "1" + blanks + "E" + blanks + "x");
  inputs.push_back(QString(10000, QChar(0x2003)) + "1x");
  inputs.push_back(QString(10000, QLatin1Char('7')));
  inputs.push_back(QString(5000, QLatin1Char('7')) + "." + QString(5000, QLatin1Char('7')) + "x");
  inputs.push_back("1," + QString(10000, QLatin1Char('9')) + "N 2x");
  QString mixed;
  for (int i = 0; i < 2500; ++i) mixed += text("1\xC2\xB0 '");
  inputs.push_back(mixed);
  // truncations of a valid pair
  const QString full = text(
      "37\xC2\xB0"
      "25'19.5\"N, 122\xC2\xB0"
      "5'3\"W");
  for (qsizetype n = 0; n < full.size(); ++n) inputs.push_back(full.left(n) + "?");
  // binary bytes, including a lone surrogate and NUL
  QString binary;
  for (int i = 0; i < 512; ++i) binary += QChar(static_cast<char16_t>((i * 7919) & 0xFFFF));
  inputs.push_back(binary);
  inputs.push_back(QString(QChar(0xD800)) + "45N");
  inputs.push_back(QString("45") + QChar(u'\0') + "N");
  return inputs;
}

TEST(BadInput, NeverCrashesHangsOrWrites) {
  for (const QString& input : hostileInputs()) {
    const auto start = std::chrono::steady_clock::now();
    double a = kUntouched, b = kUntouched, c = kUntouched, d = kUntouched, e = kUntouched;
    EXPECT_FALSE(LatLngValue::Parse(input, &a));
    EXPECT_FALSE(LatValue::Parse(input, &b));
    EXPECT_FALSE(LngValue::Parse(input, &c));
    EXPECT_FALSE(LatLngPair::Parse(input, &d, &e));
    for (double v : {a, b, c, d, e}) EXPECT_EQ(v, kUntouched);
    // A hang guard, not a speed target: the backtracking matcher must not
    // go quadratic on long runs of blanks (seconds, even under sanitizers).
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(5))
        << input.left(40).toStdString();
  }
}

// Runs of blanks read as one blank, wherever a blank is allowed.
TEST(BadInput, LongBlankRunsStillParse) {
  const QString blanks(5000, QLatin1Char(' '));
  double lat = kUntouched, lng = kUntouched;
  ASSERT_TRUE(
      LatLngPair::Parse("37.42" + blanks + "N," + blanks + "122.08" + blanks + "W", &lat, &lng));
  EXPECT_EQ(lat, 37.42);
  EXPECT_EQ(lng, -122.08);
  ASSERT_TRUE(LatValue::Parse("-" + blanks + "12" + blanks + "30", &lat));
  EXPECT_EQ(lat, -12.5);
  ASSERT_TRUE(LngValue::Parse(QString(10000, QChar(0x2003)) + "1", &lng));  // em spaces
  EXPECT_EQ(lng, 1.0);
}

// --- Threads -------------------------------------------------------------------

TEST(Threads, ParsersShareThePatternsSafely) {
  std::atomic<int> wrong{0};
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([t, &wrong] {
      for (int i = 0; i < 500; ++i) {
        const int degrees = (i + t * 13) % 90;
        double lat = 0, lng = 0;
        const QString input = QString("%1 30N, %2 15W").arg(degrees).arg(degrees + 1);
        if (!LatLngPair::Parse(input, &lat, &lng) || lat != degrees + 0.5 ||
            lng != -(degrees + 1.25))
          ++wrong;
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(wrong.load(), 0);
}

// --- Map zoom -------------------------------------------------------------------

TEST(MapsZoom, DistanceToZoom) {
  const struct {
    double distance;
    int zoom;
  } rows[] = {
      {187.5, 19},     {375.0, 18},     {375.1, 17}, {750.0, 17},   {0.5, 19},       {-10.0, 19},
      {98304000.0, 0}, {49152000.0, 1}, {1e300, 0},  {HUGE_VAL, 0}, {-HUGE_VAL, 19}, {NAN, 0},
  };
  for (const auto& row : rows) {
    EXPECT_EQ(DistanceToMapsZoom(row.distance), row.zoom) << row.distance;
  }
}

TEST(MapsZoom, ZoomToDistance) {
  const struct {
    int zoom;
    double distance;
  } rows[] = {
      {19, 187.5}, {0, 98304000.0}, {20, 187.5}, {-1, 98304000.0}, {-2147483647 - 1, 98304000.0}};
  for (const auto& row : rows) {
    EXPECT_EQ(MapsZoomToDistance(row.zoom), row.distance) << row.zoom;
  }
  for (int zoom = 0; zoom <= 19; ++zoom) {
    EXPECT_EQ(DistanceToMapsZoom(MapsZoomToDistance(zoom)), zoom);
  }
}

}  // namespace
}  // namespace kestrel
