// The text forms of every setting kind: toString, fromString, toLogString,
// getVal/setVal and getType, as tables of (input, expected) rows.
#include "settings/settings_test_support.h"

#include <cmath>
#include <limits>

namespace kestrel::test {
namespace {

using TextForms = SettingsTest;
using IntPair = std::pair<int, int>;

const QDateTime kJuly4(QDate(2006, 7, 4), QTime(9, 5, 0));

TEST_F(TextForms, ToStringOfNumbers) {
  SettingGroup group(QStringLiteral("text.tostring"));
  const struct {
    bool value;
    const char* text;
  } bools[] = {{true, "1"}, {false, "0"}};
  for (const auto& row : bools) {
    BoolSetting s(group, QStringLiteral("b"), row.value, false, false);
    EXPECT_EQ(s.toString(), QLatin1String(row.text));
  }
  const struct {
    int value;
    const char* text;
  } ints[] = {{0, "0"}, {42, "42"}, {-42, "-42"}, {std::numeric_limits<int>::min(), "-2147483648"}};
  for (const auto& row : ints) {
    IntSetting s(group, QStringLiteral("i"), row.value, false, false);
    EXPECT_EQ(s.toString(), QLatin1String(row.text)) << row.value;
    CountSetting c(group, QStringLiteral("c"), row.value, false, false);
    EXPECT_EQ(c.toString(), QLatin1String(row.text)) << row.value;
  }
  const struct {
    double value;
    const char* text;
  } reals[] = {{0.1, "0.1"},       {1234567.0, "1.23457e+06"}, {2.75, "2.75"},
               {-0.5, "-0.5"},     {100000.0, "100000"},       {1000000.0, "1e+06"},
               {0.0001, "0.0001"}, {0.00001, "1e-05"},         {1.0 / 3.0, "0.333333"}};
  for (const auto& row : reals) {
    DoubleSetting d(group, QStringLiteral("d"), row.value, false, false);
    EXPECT_EQ(d.toString(), QLatin1String(row.text)) << row.value;
    FloatSetting f(group, QStringLiteral("f"), static_cast<float>(row.value), false, false);
    EXPECT_EQ(f.toString(), QLatin1String(row.text)) << row.value;
  }
}

TEST_F(TextForms, ToStringOfStringsPairsAndDates) {
  SettingGroup group(QStringLiteral("text.tostring2"));
  StringSetting words(group, QStringLiteral("s"), QStringLiteral(" two words "), false, false);
  EXPECT_EQ(words.toString(), QStringLiteral(" two words "));

  const struct {
    IntPair value;
    const char* text;
  } pairs[] = {{{640, 480}, "640 480"}, {{-1, 0}, "-1 0"}};
  for (const auto& row : pairs) {
    IntPairSetting p(group, QStringLiteral("p"), row.value, false, false);
    EXPECT_EQ(p.toString(), QLatin1String(row.text));
    TimeSetting t(group, QStringLiteral("t"), row.value, false, false);
    EXPECT_EQ(t.toString(), QLatin1String(row.text));
  }

  const struct {
    QDateTime value;
    const char* text;
  } dates[] = {{kJuly4, "2006-7-4__9-5-0"},
               {QDateTime(QDate(1999, 12, 31), QTime(23, 59, 58)), "1999-12-31__23-59-58"},
               {QDateTime(), "0-0-0__0-0-0"}};
  for (const auto& row : dates) {
    QDateTimeSetting d(group, QStringLiteral("d"), row.value, false, false);
    EXPECT_EQ(d.toString(), QLatin1String(row.text));
  }
}

TEST_F(TextForms, BoolFromStringAcceptsOnlyTrueAndOne) {
  SettingGroup group(QStringLiteral("text.bool"));
  const struct {
    const char* input;
    bool initial;
    bool expected;
  } rows[] = {{" TRUE ", false, true}, {"true", false, true}, {"1", false, true},
              {"\t1\n", false, true},  {"tRuE", false, true}, {"yes", true, false},
              {"2", true, false},      {"", true, false},     {"truex", true, false},
              {"on", true, false},     {"1 1", true, false},  {"0", true, false}};
  for (const auto& row : rows) {
    BoolSetting s(group, QStringLiteral("b"), row.initial, false, false);
    s.fromString(QString::fromUtf8(row.input));
    EXPECT_EQ(s.get(), row.expected) << '"' << row.input << '"';
  }
}

TEST_F(TextForms, IntFromStringReadsOneDecimalNumber) {
  SettingGroup group(QStringLiteral("text.int"));
  const struct {
    const char* input;
    int expected;
  } rows[] = {{"42", 42},   {"  -7 x", -7}, {"+5", 5},  {"abc", 0}, {"", 0},
              {"3.9", 3},   {"010", 10},    {"0x1f", 0}, {"-", 0},  {"12 34", 12},
              {"2147483647", 2147483647}};
  for (const auto& row : rows) {
    IntSetting s(group, QStringLiteral("i"), 99, false, false);
    s.fromString(QString::fromUtf8(row.input));
    EXPECT_EQ(s.get(), row.expected) << '"' << row.input << '"';
    CountSetting c(group, QStringLiteral("c"), 99, false, false);
    c.fromString(QString::fromUtf8(row.input));
    EXPECT_EQ(c.get(), row.expected) << '"' << row.input << '"';
  }
}

TEST_F(TextForms, RealFromStringReadsOneNumber) {
  SettingGroup group(QStringLiteral("text.real"));
  const struct {
    const char* input;
    double expected;
  } rows[] = {{"0.1", 0.1}, {"1e3", 1000.0}, {"-2.5e-3", -2.5e-3}, {" 7 8", 7.0},
              {"abc", 0.0}, {"", 0.0},       {"2.75xyz", 2.75},    {"1.23457e+06", 1234570.0}};
  for (const auto& row : rows) {
    DoubleSetting d(group, QStringLiteral("d"), 99.0, false, false);
    d.fromString(QString::fromUtf8(row.input));
    EXPECT_DOUBLE_EQ(d.get(), row.expected) << '"' << row.input << '"';
    FloatSetting f(group, QStringLiteral("f"), 99.0f, false, false);
    f.fromString(QString::fromUtf8(row.input));
    EXPECT_FLOAT_EQ(f.get(), static_cast<float>(row.expected)) << '"' << row.input << '"';
  }
}

TEST_F(TextForms, StringFromStringKeepsFirstWord) {
  SettingGroup group(QStringLiteral("text.string"));
  const struct {
    const char* input;
    const char* expected;
  } rows[] = {{"two words", "two"}, {"  leading", "leading"}, {"tab\tstop", "tab"},
              {"", ""},             {"   ", ""},              {"Grüße welt", "Grüße"}};
  for (const auto& row : rows) {
    StringSetting s(group, QStringLiteral("s"), QStringLiteral("initial"), false, false);
    s.fromString(QString::fromUtf8(row.input));
    EXPECT_EQ(s.get(), QString::fromUtf8(row.expected)) << '"' << row.input << '"';
  }
}

TEST_F(TextForms, StringWithBlanksDoesNotSurviveARoundTrip) {
  SettingGroup group(QStringLiteral("text.string.roundtrip"));
  StringSetting s(group, QStringLiteral("s"), QStringLiteral("two words"), false, false);
  s.fromString(s.toString());
  EXPECT_EQ(s.get(), QStringLiteral("two"));
}

TEST_F(TextForms, PairFromStringReadsTwoIntegersMissingOnesAsZero) {
  SettingGroup group(QStringLiteral("text.pair"));
  const struct {
    const char* input;
    IntPair expected;
  } rows[] = {{"640 480", {640, 480}}, {"7", {7, 0}},     {"", {0, 0}},
              {"-3 -4 5", {-3, -4}},   {"x 5", {0, 0}},   {"  1\n2", {1, 2}},
              {"8 y", {8, 0}}};
  for (const auto& row : rows) {
    IntPairSetting p(group, QStringLiteral("p"), {99, 99}, false, false);
    p.fromString(QString::fromUtf8(row.input));
    EXPECT_EQ(p.get(), row.expected) << '"' << row.input << '"';
    TimeSetting t(group, QStringLiteral("t"), {99, 99}, false, false);
    t.fromString(QString::fromUtf8(row.input));
    EXPECT_EQ(t.get(), row.expected) << '"' << row.input << '"';
  }
}

TEST_F(TextForms, DateTimeFromStringReadsQtTextDateOnly) {
  SettingGroup group(QStringLiteral("text.datetime"));
  const struct {
    QString input;
    QDateTime expected;
  } rows[] = {{QStringLiteral("Tue Jul 4 09:05:00 2006"), kJuly4},
              {kJuly4.toString(Qt::TextDate), kJuly4},
              {QStringLiteral("2006-7-4__9-5-0"), QDateTime()},
              {QStringLiteral("not a date"), QDateTime()},
              {QString(), QDateTime()}};
  for (const auto& row : rows) {
    QDateTimeSetting d(group, QStringLiteral("d"), QDateTime(QDate(2000, 1, 1), QTime(0, 0)),
                       false, false);
    d.fromString(row.input);
    EXPECT_EQ(d.get(), row.expected) << row.input.toStdString();
    EXPECT_EQ(d.get().isValid(), row.expected.isValid()) << row.input.toStdString();
  }
}

TEST_F(TextForms, DateTimeDoesNotSurviveARoundTrip) {
  SettingGroup group(QStringLiteral("text.datetime.roundtrip"));
  QDateTimeSetting d(group, QStringLiteral("d"), kJuly4, false, false);
  d.fromString(d.toString());
  EXPECT_FALSE(d.get().isValid());
}

TEST_F(TextForms, FromStringGoesThroughTheTypedSetter) {
  SettingGroup group(QStringLiteral("text.setter"));
  IntSetting s(group, QStringLiteral("i"), 1, false, false);
  RecordingSettingObserver watcher(&s, nullptr, "w");
  int caller = 0;
  Setting::sCurrentModifier = &caller;

  Setting::pushAllSettings();
  s.fromString(QStringLiteral("1"));  // same value: stamp only
  EXPECT_EQ(s.getModifier(), &caller);
  EXPECT_EQ(watcher.changed, 0);
  s.fromString(QStringLiteral("2"));
  EXPECT_EQ(watcher.changed, 1);
  EXPECT_EQ(Setting::sRestoreList.first().size(), 1);
  Setting::popAllSettings();
  EXPECT_EQ(s.get(), 1);
}

TEST_F(TextForms, LogFormOfEveryKind) {
  SettingGroup group(QStringLiteral("text.log"));
  BoolSetting boolFalse(group, QStringLiteral("b"), false, false, false);
  BoolSetting boolTrue(group, QStringLiteral("b"), true, false, false);
  IntSetting intZero(group, QStringLiteral("n"), 0, false, false);
  IntSetting intNegative(group, QStringLiteral("n"), -5, false, false);
  CountSetting countZero(group, QStringLiteral("c"), 0, false, false);
  CountSetting countThree(group, QStringLiteral("c"), 3, false, false);
  FloatSetting floatPositive(group, QStringLiteral("f"), 2.75f, false, false);
  FloatSetting floatNegative(group, QStringLiteral("f"), -2.75f, false, false);
  FloatSetting floatHuge(group, QStringLiteral("f"), 1e20f, false, false);
  DoubleSetting doubleTiny(group, QStringLiteral("d"), -1e10, false, false);
  DoubleSetting doubleNan(group, QStringLiteral("d"), std::nan(""), false, false);
  StringSetting string(group, QStringLiteral("s"), QStringLiteral("secret"), false, false);
  HashedStringSetting hashCheck(group, QStringLiteral("h"), QStringLiteral("123456789"), false,
                                false);
  HashedStringSetting hashEmpty(group, QStringLiteral("h"), QString(), false, false);
  HashedStringSetting hashHello(group, QStringLiteral("h"), QStringLiteral("hello"), false,
                                false);
  HashedStringSetting hashUtf8(group, QStringLiteral("h"), QString::fromUtf8("Grüße"), false,
                               false);
  IntPairSetting pair(group, QStringLiteral("winSize"), {640, 480}, false, false);
  TimeSetting time(group, QStringLiteral("timeForSetupApp"), {1043, 1187}, false, false);
  QDateTimeSetting date(group, QStringLiteral("lastRun"), kJuly4, false, false);

  const struct {
    const Setting* setting;
    const char* expected;  // null: the log form is a null QString
  } rows[] = {
      {&boolFalse, nullptr},
      {&boolTrue, "&b:b=t"},
      {&intZero, "&n:i=0"},
      {&intNegative, "&n:i=-5"},
      {&countZero, nullptr},
      {&countThree, "&c:c=3"},
      {&floatPositive, "&f:i=2"},
      {&floatNegative, "&f:i=-2"},
      {&floatHuge, "&f:i=2147483647"},
      {&doubleTiny, "&d:i=-2147483648"},
      {&doubleNan, "&d:i=0"},
      {&string, nullptr},
      {&hashCheck, "&h:i=-873187034"},
      {&hashEmpty, "&h:i=0"},
      {&hashHello, "&h:i=907060870"},
      {&hashUtf8, "&h:i=-70029199"},
      {&pair, "&winSize[0]:i=640&winSize[1]:i=480"},
      {&time, "&timeForSetupApp[0]:i=1043&timeForSetupApp[1]:i=1187"},
      {&date,
       "&DateTime-lastRun-yy:i=2006&DateTime-lastRun-mo:i=7&DateTime-lastRun-dd:i=4"
       "&DateTime-lastRun-hh:i=9&DateTime-lastRun-mi:i=5&DateTime-lastRun-ss:i=0"},
  };
  for (const auto& row : rows) {
    const QString log = row.setting->toLogString();
    if (row.expected) {
      EXPECT_EQ(log, QString::fromUtf8(row.expected));
    } else {
      EXPECT_TRUE(log.isNull()) << "expected a null log form, got " << log.toStdString();
    }
  }
}

TEST_F(TextForms, HashKeepsTheInitialValue) {
  SettingGroup group(QStringLiteral("text.hash"));
  HashedStringSetting h(group, QStringLiteral("h"), QStringLiteral("123456789"), false, false);
  h.set(QStringLiteral("hello"));
  EXPECT_EQ(h.toLogString(), QStringLiteral("&h:i=-873187034"));
  h.fromString(QStringLiteral("other"));
  EXPECT_EQ(h.get(), QStringLiteral("other"));
  EXPECT_EQ(h.toLogString(), QStringLiteral("&h:i=-873187034"));
  EXPECT_EQ(h.getHash(), 0xCBF43926u);
}

TEST_F(TextForms, NumericValueOfEveryKind) {
  SettingGroup group(QStringLiteral("text.getval"));
  BoolSetting boolean(group, QStringLiteral("b"), true, false, false);
  IntSetting integer(group, QStringLiteral("i"), -7, false, false);
  CountSetting count(group, QStringLiteral("c"), 9, false, false);
  FloatSetting real(group, QStringLiteral("f"), 0.5f, false, false);
  DoubleSetting precise(group, QStringLiteral("d"), 0.1, false, false);
  StringSetting text(group, QStringLiteral("s"), QStringLiteral("12"), false, false);
  IntPairSetting pair(group, QStringLiteral("p"), {3, 4}, false, false);
  QDateTimeSetting date(group, QStringLiteral("t"), kJuly4, false, false);

  const struct {
    const Setting* setting;
    double expected;
  } rows[] = {{&boolean, 1.0}, {&integer, -7.0}, {&count, 9.0}, {&real, 0.5},
              {&precise, 0.1}, {&text, 0.0},     {&pair, 0.0},  {&date, 0.0}};
  for (const auto& row : rows) EXPECT_EQ(row.setting->getVal(), row.expected);
  boolean.set(false);
  EXPECT_EQ(boolean.getVal(), 0.0);
}

TEST_F(TextForms, SetValConvertsPerKind) {
  SettingGroup group(QStringLiteral("text.setval"));
  const double nan = std::numeric_limits<double>::quiet_NaN();
  const struct {
    double input;
    int expected;
  } ints[] = {{3.9, 3}, {-3.9, -3}, {0.0, 0}, {1e12, 2147483647}, {-1e12, -2147483647 - 1},
              {nan, 0}};
  for (const auto& row : ints) {
    IntSetting s(group, QStringLiteral("i"), 99, false, false);
    s.setVal(row.input);
    EXPECT_EQ(s.get(), row.expected) << row.input;
  }
  const struct {
    double input;
    bool expected;
  } bools[] = {{0.0, false}, {0.5, true}, {-1.0, true}, {nan, true}};
  for (const auto& row : bools) {
    BoolSetting s(group, QStringLiteral("b"), !row.expected, false, false);
    s.setVal(row.input);
    EXPECT_EQ(s.get(), row.expected) << row.input;
  }
  FloatSetting f(group, QStringLiteral("f"), 0.0f, false, false);
  f.setVal(0.1);
  EXPECT_EQ(f.get(), 0.1f);
  DoubleSetting d(group, QStringLiteral("d"), 0.0, false, false);
  d.setVal(0.1);
  EXPECT_EQ(d.get(), 0.1);
}

TEST_F(TextForms, SetValOnKindsWithoutNumberOnlyStampsModifier) {
  SettingGroup group(QStringLiteral("text.setval.none"));
  StringSetting text(group, QStringLiteral("s"), QStringLiteral("keep"), false, false);
  IntPairSetting pair(group, QStringLiteral("p"), {1, 2}, false, false);
  QDateTimeSetting date(group, QStringLiteral("t"), kJuly4, false, false);
  RecordingGroupObserver watcher(&group, nullptr, "g");
  int caller = 0;
  Setting::sCurrentModifier = &caller;

  Setting::pushAllSettings();
  for (Setting* s : {static_cast<Setting*>(&text), static_cast<Setting*>(&pair),
                     static_cast<Setting*>(&date)}) {
    s->setVal(5.0);
    EXPECT_EQ(s->getModifier(), &caller) << s->getName().toStdString();
  }
  EXPECT_TRUE(Setting::sRestoreList.first().isEmpty());
  Setting::popAllSettings();
  EXPECT_EQ(watcher.changed, 0);
  EXPECT_EQ(text.get(), QStringLiteral("keep"));
  EXPECT_EQ(pair.get(), (IntPair{1, 2}));
  EXPECT_EQ(date.get(), kJuly4);
}

}  // namespace
}  // namespace kestrel::test
