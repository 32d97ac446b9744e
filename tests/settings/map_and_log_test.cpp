// MapAndLog: capacity, entry naming, value changes and ownership.
#include "settings/settings_test_support.h"

#include <memory>

namespace kestrel::test {
namespace {

using MapAndLogTest = SettingsTest;

TEST_F(MapAndLogTest, EntriesAreNamedInCreationOrderUpToTheCapacity) {
  SettingGroup group(QStringLiteral("map.capacity"));
  MapAndLog map(QStringLiteral("codes"), 3, group, true);
  map.set(500, 1);
  map.incrementValue(-3);
  map.set(42, 3);
  map.incrementValue(11);  // full: dropped
  map.set(13, 5);

  EXPECT_EQ(members(group), "codes-0=500 1, codes-1=-3 1, codes-2=42 3");
  EXPECT_EQ(group.getSetting(1)->toLogString(), QStringLiteral("&codes-1[0]:i=-3&codes-1[1]:i=1"));
  EXPECT_FALSE(map.hasKey(11) || map.hasKey(13));
  EXPECT_TRUE(map.hasKey(42));
  EXPECT_EQ(map.getEntryCount(), 3);

  MapAndLog none(QStringLiteral("none"), 0, group, true);
  none.incrementValue(1);
  EXPECT_FALSE(none.hasKey(1));
  EXPECT_EQ(group.getSettingCount(), 3);
}

TEST_F(MapAndLogTest, ChangesOfPresentKeysGoThroughTheTypedSetter) {
  SettingGroup group(QStringLiteral("map.values"));
  RecordingGroupObserver watcher(&group);
  MapAndLog map(QStringLiteral("m"), 4, group, true);
  map.addEntry(1, 10);
  map.incrementValue(2);
  map.setLogEnabled(false);
  map.incrementValue(3);
  EXPECT_EQ(watcher.changed, 0) << "new entries notify nobody";
  EXPECT_TRUE(group.getSetting(0)->getFirstFlag()) << "the log switch at creation";
  EXPECT_FALSE(group.getSetting(2)->getFirstFlag());
  EXPECT_FALSE(group.getSetting(0)->getSecondFlag()) << "entries pass false, whatever the switch";
  EXPECT_FALSE(group.getSetting(2)->getSecondFlag());

  Setting::pushAllSettings();
  map.incrementValue(1);
  map.incrementValue(1);
  map.set(2, 20);
  map.set(2, 20);  // same pair: nothing to tell
  int value = 0;
  EXPECT_TRUE(map.get(1, value));
  EXPECT_EQ(value, 12);
  EXPECT_EQ(members(group), "m-0=1 12, m-1=2 20, m-2=3 1") << "changes reuse the entry";
  EXPECT_EQ(watcher.changed, 3);
  EXPECT_EQ(Setting::sRestoreList.first().size(), 3);
  EXPECT_TRUE(Setting::popAllSettings());
  EXPECT_EQ(members(group), "m-0=1 10, m-1=2 1, m-2=3 1");

  int untouched = 123;
  EXPECT_FALSE(map.get(8, untouched));
  EXPECT_EQ(untouched, 123);
}

TEST_F(MapAndLogTest, AddEntryForPresentKeyReplacesItsSlot) {
  SettingGroup group(QStringLiteral("map.replace"));
  MapAndLog map(QStringLiteral("m"), 4, group, false);
  map.addEntry(7, 1);
  Setting* const old = group.getSetting(0);
  map.addEntry(7, 5);
  map.incrementValue(7);  // reaches only the new entry

  int value = 0;
  EXPECT_TRUE(map.get(7, value));
  EXPECT_EQ(value, 6);
  EXPECT_EQ(map.getEntryCount(), 1);
  EXPECT_EQ(members(group), "m-0=7 1, m-1=7 6") << "the old entry stays in the group";
  delete old;  // the map no longer owns it
}

TEST_F(MapAndLogTest, DestructionInEitherOrderWithTheGroup) {
  auto group = std::make_unique<SettingGroup>(QStringLiteral("map.lifetime"));
  {
    MapAndLog map(QStringLiteral("m"), 4, *group, false);
    map.incrementValue(1);
    map.incrementValue(2);
    EXPECT_EQ(group->getSettingCount(), 2);
  }
  EXPECT_EQ(group->getSettingCount(), 0);

  auto map = std::make_unique<MapAndLog>(QStringLiteral("m"), 4, *group, false);
  map->incrementValue(1);
  group.reset();  // entries are orphaned, still owned by the map
  map->incrementValue(1);
  int value = 0;
  EXPECT_TRUE(map->get(1, value));
  EXPECT_EQ(value, 2);
  map.reset();
}

}  // namespace
}  // namespace kestrel::test
