// MapAndLog: capacity, entry naming, value changes and ownership.
#include "settings/settings_test_support.h"

#include <memory>

namespace kestrel::test {
namespace {

using MapAndLogTest = SettingsTest;
using IntPair = std::pair<int, int>;

IntPair entryValue(const SettingGroup& group, const QString& name) {
  const auto* entry = dynamic_cast<const IntPairSetting*>(group.getSetting(name));
  return entry ? entry->get() : IntPair{-999, -999};
}

TEST_F(MapAndLogTest, KeysBeyondCapacityAreDropped) {
  SettingGroup group(QStringLiteral("map.capacity"));
  MapAndLog map(QStringLiteral("hits"), 2, group, true);
  map.incrementValue(7);
  map.incrementValue(9);
  map.incrementValue(11);

  EXPECT_EQ(memberNames(group),
            (std::vector<QString>{QStringLiteral("hits-0"), QStringLiteral("hits-1")}));
  EXPECT_EQ(entryValue(group, QStringLiteral("hits-0")), (IntPair{7, 1}));
  EXPECT_EQ(entryValue(group, QStringLiteral("hits-1")), (IntPair{9, 1}));
  EXPECT_FALSE(map.hasKey(11));
  EXPECT_TRUE(map.hasKey(9));
  EXPECT_EQ(map.getEntryCount(), 2);

  map.set(13, 5);  // set of a new key is an addEntry too
  EXPECT_FALSE(map.hasKey(13));

  MapAndLog none(QStringLiteral("none"), 0, group, true);
  none.incrementValue(1);
  EXPECT_FALSE(none.hasKey(1));
  EXPECT_EQ(group.getSettingCount(), 2);
}

TEST_F(MapAndLogTest, EntriesAreNamedInCreationOrderNotByKey) {
  SettingGroup group(QStringLiteral("map.naming"));
  MapAndLog map(QStringLiteral("codes"), 10, group, true);
  map.set(500, 1);
  map.set(-3, 2);
  map.set(42, 3);
  EXPECT_EQ(entryValue(group, QStringLiteral("codes-0")), (IntPair{500, 1}));
  EXPECT_EQ(entryValue(group, QStringLiteral("codes-1")), (IntPair{-3, 2}));
  EXPECT_EQ(entryValue(group, QStringLiteral("codes-2")), (IntPair{42, 3}));
  EXPECT_EQ(group.getSetting(QStringLiteral("codes-1"))->toLogString(),
            QStringLiteral("&codes-1[0]:i=-3&codes-1[1]:i=2"));
}

TEST_F(MapAndLogTest, IncrementSetAndGetOfPresentKeys) {
  SettingGroup group(QStringLiteral("map.values"));
  MapAndLog map(QStringLiteral("m"), 4, group, false);
  map.incrementValue(7);
  map.incrementValue(7);
  int value = 0;
  EXPECT_TRUE(map.get(7, value));
  EXPECT_EQ(value, 2);
  EXPECT_EQ(entryValue(group, QStringLiteral("m-0")), (IntPair{7, 2}));

  map.set(7, 40);
  map.incrementValue(7);
  EXPECT_TRUE(map.get(7, value));
  EXPECT_EQ(value, 41);
  EXPECT_EQ(group.getSettingCount(), 1) << "changes reuse the entry";

  int untouched = 123;
  EXPECT_FALSE(map.get(8, untouched));
  EXPECT_EQ(untouched, 123);
}

TEST_F(MapAndLogTest, ValueChangesGoThroughTheTypedSetterAddEntryNotifiesNobody) {
  SettingGroup group(QStringLiteral("map.notify"));
  RecordingGroupObserver watcher(&group, nullptr, "g");
  MapAndLog map(QStringLiteral("m"), 4, group, false);
  map.addEntry(1, 10);
  map.incrementValue(2);
  EXPECT_EQ(watcher.changed, 0);

  Setting::pushAllSettings();
  map.incrementValue(1);
  map.set(2, 20);
  map.set(2, 20);  // same pair: nothing to tell
  EXPECT_EQ(watcher.changed, 2);
  EXPECT_EQ(Setting::sRestoreList.first().size(), 2);
  Setting::popAllSettings();

  int value = 0;
  map.get(1, value);
  EXPECT_EQ(value, 10);
  map.get(2, value);
  EXPECT_EQ(value, 1);
}

TEST_F(MapAndLogTest, LogSwitchBecomesFirstFlagOfLaterEntries) {
  SettingGroup group(QStringLiteral("map.flags"));
  MapAndLog map(QStringLiteral("m"), 4, group, true);
  EXPECT_TRUE(map.isLogEnabled());
  map.incrementValue(1);
  map.setLogEnabled(false);
  map.incrementValue(2);

  const Setting* first = group.getSetting(QStringLiteral("m-0"));
  const Setting* second = group.getSetting(QStringLiteral("m-1"));
  ASSERT_TRUE(first && second);
  EXPECT_TRUE(first->getFirstFlag());
  EXPECT_FALSE(second->getFirstFlag());
  EXPECT_FALSE(first->getSecondFlag());
  EXPECT_FALSE(second->getSecondFlag());
  EXPECT_EQ(first->getType(), TypeIntPair);
}

TEST_F(MapAndLogTest, AddEntryForPresentKeyReplacesItsSlot) {
  SettingGroup group(QStringLiteral("map.replace"));
  MapAndLog map(QStringLiteral("m"), 4, group, false);
  map.addEntry(7, 1);
  Setting* const old = group.getSetting(QStringLiteral("m-0"));
  map.addEntry(7, 5);

  int value = 0;
  EXPECT_TRUE(map.get(7, value));
  EXPECT_EQ(value, 5);
  EXPECT_EQ(map.getEntryCount(), 1);
  EXPECT_EQ(entryValue(group, QStringLiteral("m-1")), (IntPair{7, 5}));
  EXPECT_EQ(group.getSetting(QStringLiteral("m-0")), old) << "the old entry stays in the group";

  map.incrementValue(7);  // reaches only the new entry
  EXPECT_EQ(entryValue(group, QStringLiteral("m-0")), (IntPair{7, 1}));
  EXPECT_EQ(entryValue(group, QStringLiteral("m-1")), (IntPair{7, 6}));
  delete old;  // the map no longer owns it
}

TEST_F(MapAndLogTest, DestructionRemovesEntriesInEitherOrderWithTheGroup) {
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
