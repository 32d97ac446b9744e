// The text forms of every setting kind: fromString, toString, toLogString,
// getVal and setVal, as tables of (kinds, input, expected) rows.
#include "settings/settings_test_support.h"

#include <limits>
#include <memory>

namespace kestrel::test {
namespace {

using TextForms = SettingsTest;

// One fresh setting named "x" per kind letter, holding a value that no row
// expects, so a parser that does nothing is caught:
//   b bool (false)  B bool (true)  i int (99)  c count (99)  f float (99)
//   d double (99)   s string       h hashed string   p int pair (99 99)
//   t time (99 99)  q date-time (2000-01-01 00:00)
std::unique_ptr<Setting> make(SettingGroup& g, char kind) {
  const QString x = QStringLiteral("x");
  const QString initial = QStringLiteral("initial");
  const std::pair<int, int> pair{99, 99};
  if (kind == 'b' || kind == 'B')
    return std::make_unique<BoolSetting>(g, x, kind == 'B', false, false);
  if (kind == 'i') return std::make_unique<IntSetting>(g, x, 99, false, false);
  if (kind == 'c') return std::make_unique<CountSetting>(g, x, 99, false, false);
  if (kind == 'f') return std::make_unique<FloatSetting>(g, x, 99.0f, false, false);
  if (kind == 'd') return std::make_unique<DoubleSetting>(g, x, 99.0, false, false);
  if (kind == 's') return std::make_unique<StringSetting>(g, x, initial, false, false);
  if (kind == 'h') return std::make_unique<HashedStringSetting>(g, x, initial, false, false);
  if (kind == 'p') return std::make_unique<IntPairSetting>(g, x, pair, false, false);
  if (kind == 't') return std::make_unique<TimeSetting>(g, x, pair, false, false);
  const QDateTime y2k(QDate(2000, 1, 1), QTime(0, 0));
  if (kind == 'q') return std::make_unique<QDateTimeSetting>(g, x, y2k, false, false);
  ADD_FAILURE() << "no kind " << kind;
  return nullptr;
}

TEST_F(TextForms, FromStringThenToString) {
  SettingGroup group(QStringLiteral("text.forms"));
  // clang-format off
  const struct {
    const char *kinds, *input, *text;
  } rows[] = {
      {"b", " TRUE ", "1"}, {"b", "tRuE", "1"}, {"b", "\t1\n", "1"}, {"B", "0", "0"},
      {"B", "yes", "0"},    {"B", "2", "0"},    {"B", "", "0"},      {"B", "truex", "0"},
      {"B", "1 1", "0"},
      {"ic", "42", "42"},   {"ic", "  -7 x", "-7"}, {"ic", "+5", "5"},    {"ic", "abc", "0"},
      {"ic", "", "0"},      {"ic", "3.9", "3"},     {"ic", "010", "10"},  {"ic", "0x1f", "0"},
      {"ic", "-", "0"},     {"ic", "12 34", "12"},  {"ic", "-2147483648", "-2147483648"},
      // Integers beyond the int range saturate at its limits instead of wrapping.
      {"ic", "2147483647", "2147483647"},    {"ic", "2147483648", "2147483647"},
      {"ic", "3000000000", "2147483647"},    {"ic", "-2147483649", "-2147483648"},
      {"ic", "-3000000000", "-2147483648"},  {"ic", "99999999999999999999999", "2147483647"},
      {"ic", "4294967297", "2147483647"},    {"ic", "0000000000000000000042", "42"},
      {"ic", "- 5", "0"},   {"ic", "\u0663\u0661", "31"},  // digits of any script, as read so far
      {"fd", "0.1", "0.1"},       {"fd", "1234567", "1.23457e+06"}, {"fd", "2.75xyz", "2.75"},
      {"fd", "-0.5", "-0.5"},     {"fd", "100000", "100000"},       {"fd", "1e6", "1e+06"},
      {"fd", "0.0001", "0.0001"}, {"fd", "0.00001", "1e-05"},       {"fd", "0.3333333", "0.333333"},
      {"fd", " 7 8", "7"},        {"fd", "abc", "0"},               {"fd", "-2.5e-3", "-0.0025"},
      // Exactly printf's %g: ties on the exact binary value, the sign of zero kept.
      {"fd", "12345.25", "12345.2"}, {"fd", "1000005", "1e+06"}, {"fd", "123456.5", "123456"},
      {"fd", "12345.75", "12345.8"}, {"fd", "-0", "-0"},         {"fd", "-0.0", "-0"},
      {"fd", "999999.5", "1e+06"},   {"fd", "0.000123456", "0.000123456"},
      {"sh", "two words", "two"}, {"sh", "  leading", "leading"},   {"sh", "tab\tstop", "tab"},
      {"sh", "   ", ""},          {"sh", "Grüße welt", "Grüße"},
      {"pt", "640 480", "640 480"}, {"pt", "7", "7 0"},     {"pt", "", "0 0"},
      {"pt", "-3 -4 5", "-3 -4"},   {"pt", "x 5", "0 0"},   {"pt", "  1\n2", "1 2"},
      {"pt", "8 y", "8 0"},       {"pt", "3000000000 -99999999999", "2147483647 -2147483648"},
      {"pt", "- 5", "0 5"},       {"pt", "+-5 6", "0 -5"},  // a sign without digits is used up
      {"q", "Tue Jul 4 09:05:00 2006", "2006-7-4__9-5-0"},
      {"q", "Fri Dec 31 23:59:58 1999", "1999-12-31__23-59-58"},
      {"q", "2006-7-4__9-5-0", "0-0-0__0-0-0"},  // its own text form is not read back
      {"q", "not a date", "0-0-0__0-0-0"}};
  // clang-format on
  for (const auto& row : rows) {
    for (const char* kind = row.kinds; *kind; ++kind) {
      SCOPED_TRACE(std::string(1, *kind) + " \"" + row.input + '"');
      const auto setting = make(group, *kind);
      setting->fromString(QString::fromUtf8(row.input));
      EXPECT_EQ(setting->toString(), QString::fromUtf8(row.text));
    }
  }
}

TEST_F(TextForms, LogForms) {
  SettingGroup group(QStringLiteral("text.log"));
  // clang-format off
  const struct {
    const char *kinds, *input, *log;  // log null: a null QString
  } rows[] = {
      {"B", "0", nullptr},  {"b", "1", "&x:b=t"},  {"i", "0", "&x:i=0"},  {"i", "-5", "&x:i=-5"},
      {"c", "0", nullptr},  {"c", "3", "&x:c=3"},  {"s", "secret", nullptr},
      {"fd", "2.75", "&x:i=2"},           {"fd", "-2.75", "&x:i=-2"},  {"fd", "nan", "&x:i=0"},
      {"fd", "1e20", "&x:i=2147483647"},  {"fd", "-1e10", "&x:i=-2147483648"},
      {"h", "other", "&x:i=-1104732753"},  // the hash of "initial", taken at construction
      {"pt", "640 480", "&x[0]:i=640&x[1]:i=480"},
      {"q", "Tue Jul 4 09:05:00 2006",
       "&DateTime-x-yy:i=2006&DateTime-x-mo:i=7&DateTime-x-dd:i=4&DateTime-x-hh:i=9"
       "&DateTime-x-mi:i=5&DateTime-x-ss:i=0"}};
  // clang-format on
  for (const auto& row : rows) {
    for (const char* kind = row.kinds; *kind; ++kind) {
      SCOPED_TRACE(std::string(1, *kind) + " \"" + row.input + '"');
      const auto setting = make(group, *kind);
      setting->fromString(QString::fromUtf8(row.input));
      const QString log = setting->toLogString();
      if (row.log) {
        EXPECT_EQ(log, QString::fromUtf8(row.log));
      } else {
        EXPECT_TRUE(log.isNull()) << "got " << log.toStdString();
      }
    }
  }
}

// CRC-32 of the UTF-8 bytes of the initial value, fixed at construction.
TEST_F(TextForms, HashIsTakenOfTheInitialValueOnly) {
  SettingGroup group(QStringLiteral("text.hash"));
  // clang-format off
  const struct {
    QString initial;
    const char* log;
  } rows[] = {
      {QStringLiteral("123456789"), "&h:i=-873187034"}, {QString(), "&h:i=0"},
      {QStringLiteral("hello"), "&h:i=907060870"},
      {QString::fromUtf8("Grüße"), "&h:i=-70029199"}};
  // clang-format on
  for (const auto& row : rows) {
    HashedStringSetting h(group, QStringLiteral("h"), row.initial, false, false);
    h.set(QStringLiteral("changed"));
    EXPECT_EQ(h.toLogString(), QLatin1String(row.log)) << row.initial.toStdString();
  }
}

TEST_F(TextForms, NumericValues) {
  SettingGroup group(QStringLiteral("text.val"));
  const double nan = std::numeric_limits<double>::quiet_NaN();
  // clang-format off
  const struct {
    const char* kinds;
    double setVal;
    const char* text;  // after setVal
    double getVal;     // after setVal
  } rows[] = {
      {"ic", 3.9, "3", 3.0},  {"ic", -3.9, "-3", -3.0},  {"ic", 1e12, "2147483647", 2147483647.0},
      {"ic", nan, "0", 0.0},  {"ic", -1e12, "-2147483648", -2147483648.0},
      {"B", 0.0, "0", 0.0},   {"b", 0.5, "1", 1.0},  {"b", -1.0, "1", 1.0},  {"b", nan, "1", 1.0},
      {"f", 0.1, "0.1", static_cast<double>(0.1f)},  {"d", 0.1, "0.1", 0.1},
      {"f", 1e300, "inf", std::numeric_limits<double>::infinity()},
      // Kinds without a number keep their value.
      {"sh", 5.0, "initial", 0.0},  {"pt", 5.0, "99 99", 0.0},  {"q", 5.0, "2000-1-1__0-0-0", 0.0}};
  // clang-format on
  int caller = 0;
  Setting::sCurrentModifier = &caller;
  for (const auto& row : rows) {
    for (const char* kind = row.kinds; *kind; ++kind) {
      SCOPED_TRACE(std::string(1, *kind) + " " + std::to_string(row.setVal));
      const auto setting = make(group, *kind);
      setting->setVal(row.setVal);
      EXPECT_EQ(setting->getModifier(), &caller) << "stamped even when nothing changes";
      EXPECT_EQ(setting->toString(), QLatin1String(row.text));
      EXPECT_EQ(setting->getVal(), row.getVal);
    }
  }
}

}  // namespace
}  // namespace kestrel::test
