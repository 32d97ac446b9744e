// What every setting kind reports about itself: its kind code (clients store
// the numbers, so they are checked as numbers) and the two constructor flags.
#include "settings/settings_test_support.h"

#include <functional>
#include <memory>

namespace kestrel::test {
namespace {

using SettingKinds = SettingsTest;

using Factory =
    std::function<std::unique_ptr<Setting>(SettingGroup&, bool firstFlag, bool secondFlag)>;

struct Kind {
  const char* name;
  int code;  // the stored number of getType()
  Factory make;
};

std::vector<Kind> allKinds(IntHistogram& histogram) {
  const QString x = QStringLiteral("x");
  return {
      {"BoolSetting", 0,
       [x](SettingGroup& g, bool a, bool b) {
         return std::make_unique<BoolSetting>(g, x, false, a, b);
       }},
      {"IntSetting", 1,
       [x](SettingGroup& g, bool a, bool b) {
         return std::make_unique<IntSetting>(g, x, 0, a, b);
       }},
      {"FloatSetting", 2,
       [x](SettingGroup& g, bool a, bool b) {
         return std::make_unique<FloatSetting>(g, x, 0.0f, a, b);
       }},
      {"DoubleSetting", 3,
       [x](SettingGroup& g, bool a, bool b) {
         return std::make_unique<DoubleSetting>(g, x, 0.0, a, b);
       }},
      {"StringSetting", 4,
       [x](SettingGroup& g, bool a, bool b) {
         return std::make_unique<StringSetting>(g, x, QString(), a, b);
       }},
      {"QDateTimeSetting", 5,
       [x](SettingGroup& g, bool a, bool b) {
         return std::make_unique<QDateTimeSetting>(g, x, QDateTime(), a, b);
       }},
      {"CountSetting", 6,
       [x](SettingGroup& g, bool a, bool b) {
         return std::make_unique<CountSetting>(g, x, 0, a, b);
       }},
      {"IntPairSetting", 7,
       [x](SettingGroup& g, bool a, bool b) {
         return std::make_unique<IntPairSetting>(g, x, std::make_pair(0, 0), a, b);
       }},
      {"TimeSetting", 8,
       [x](SettingGroup& g, bool a, bool b) {
         return std::make_unique<TimeSetting>(g, x, std::make_pair(0, 0), a, b);
       }},
      {"HashedStringSetting", 9,
       [x](SettingGroup& g, bool a, bool b) {
         return std::make_unique<HashedStringSetting>(g, x, QString(), a, b);
       }},
      {"IntHistogramSetting", 10,
       [x, &histogram](SettingGroup& g, bool a, bool b) {
         return std::make_unique<IntHistogramSetting>(g, x, histogram, a, b);
       }},
  };
}

TEST_F(SettingKinds, EveryKindReportsItsStoredCode) {
  SettingGroup group(QStringLiteral("kinds.codes"));
  IntHistogram histogram(0, 10, 2);
  for (const Kind& kind : allKinds(histogram)) {
    const auto setting = kind.make(group, false, false);
    EXPECT_EQ(static_cast<int>(setting->getType()), kind.code) << kind.name;
  }
}

// Each flag must reach the setting on its own: both settings of one kind are
// built with the flags the other way round.
TEST_F(SettingKinds, BothFlagsAreStoredAsGiven) {
  SettingGroup group(QStringLiteral("kinds.flags"));
  IntHistogram histogram(0, 10, 2);
  for (const Kind& kind : allKinds(histogram)) {
    for (const bool second : {false, true}) {
      SCOPED_TRACE(testing::Message() << kind.name << " second flag " << second);
      const auto setting = kind.make(group, !second, second);
      EXPECT_EQ(setting->getFirstFlag(), !second);
      EXPECT_EQ(setting->getSecondFlag(), second);
    }
  }
}

}  // namespace
}  // namespace kestrel::test
