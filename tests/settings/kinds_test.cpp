// What every setting kind reports about itself: its kind code (clients store
// the numbers, so they are checked as numbers) and the two constructor flags.
#include "settings/settings_test_support.h"

#include <functional>
#include <memory>

namespace kestrel::test {
namespace {

using SettingKinds = SettingsTest;

struct Kind {
  const char* name;
  int code;  // the stored number of getType()
  std::function<std::unique_ptr<Setting>(SettingGroup&, bool firstFlag, bool secondFlag)> make;
};

template <typename S, typename V>
Kind kind(const char* name, int code, V initial) {
  return {name, code, [initial](SettingGroup& g, bool a, bool b) -> std::unique_ptr<Setting> {
            return std::make_unique<S>(g, QStringLiteral("x"), initial, a, b);
          }};
}

// Each flag must reach the setting on its own: both settings of one kind are
// built with the flags the other way round.
TEST_F(SettingKinds, EveryKindReportsItsStoredCodeAndBothFlagsAsGiven) {
  SettingGroup group(QStringLiteral("kinds"));
  IntHistogram histogram(0, 10, 2);
  const std::pair<int, int> pair{0, 0};
  const Kind kinds[] = {kind<BoolSetting>("BoolSetting", 0, false),
                        kind<IntSetting>("IntSetting", 1, 0),
                        kind<FloatSetting>("FloatSetting", 2, 0.0f),
                        kind<DoubleSetting>("DoubleSetting", 3, 0.0),
                        kind<StringSetting>("StringSetting", 4, QString()),
                        kind<QDateTimeSetting>("QDateTimeSetting", 5, QDateTime()),
                        kind<CountSetting>("CountSetting", 6, 0),
                        kind<IntPairSetting>("IntPairSetting", 7, pair),
                        kind<TimeSetting>("TimeSetting", 8, pair),
                        kind<HashedStringSetting>("HashedStringSetting", 9, QString()),
                        kind<IntHistogramSetting>("IntHistogramSetting", 10, std::ref(histogram))};
  for (const Kind& kind : kinds) {
    for (const bool second : {false, true}) {
      SCOPED_TRACE(testing::Message() << kind.name << " second flag " << second);
      const auto setting = kind.make(group, !second, second);
      EXPECT_EQ(static_cast<int>(setting->getType()), kind.code);
      EXPECT_EQ(setting->getFirstFlag(), !second);
      EXPECT_EQ(setting->getSecondFlag(), second);
    }
  }
}

}  // namespace
}  // namespace kestrel::test
