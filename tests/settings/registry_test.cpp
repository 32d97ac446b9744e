// The setting registry: groups, pending settings, lookup and destruction order.
#include "settings/settings_test_support.h"

#include <memory>
#include <stdexcept>

namespace kestrel::test {
namespace {

using Registry = SettingsTest;

TEST_F(Registry, PendingSettingsAreAdoptedByTheirOwnGroupInReverseOrder) {
  Late<SettingGroup> a;
  Late<SettingGroup> b;
  IntSetting a1(a.ref(), QStringLiteral("reg.a1"), 0, false, false);
  IntSetting b1(b.ref(), QStringLiteral("reg.b1"), 0, false, false);
  auto first = std::make_unique<IntSetting>(a.ref(), QStringLiteral("reg.gone1"), 0, false, false);
  IntSetting a2(a.ref(), QStringLiteral("reg.a2"), 0, false, false);
  IntSetting a3(a.ref(), QStringLiteral("reg.a3"), 0, false, false);
  auto last = std::make_unique<IntSetting>(a.ref(), QStringLiteral("reg.gone2"), 0, false, false);
  first.reset();  // unlinks from the middle of the pending list
  last.reset();   // unlinks its head
  EXPECT_EQ(Setting::findSetting(QStringLiteral("reg.a1")), nullptr) << "pending: not found";

  SettingGroup& group = a.construct(QStringLiteral("reg.a"));
  IntSetting a4(group, QStringLiteral("reg.a4"), 0, false, false);
  EXPECT_EQ(members(group), "reg.a3=0, reg.a2=0, reg.a1=0, reg.a4=0");
  EXPECT_EQ(Setting::findSetting(QStringLiteral("reg.a1")), &a1);
  EXPECT_EQ(Setting::findSetting(QStringLiteral("reg.b1")), nullptr);
  EXPECT_EQ(a1.getGroup(), &group);

  b.construct(QStringLiteral("reg.b"));
  EXPECT_EQ(members(b.ref()), "reg.b1=0");
  EXPECT_EQ(Setting::findSetting(QStringLiteral("reg.b1")), &b1);
}

// A static setting may change before its group's constructor has run; the
// group's storage (garbage here) is not read until the group exists.
TEST_F(Registry, PendingSettingChangeTellsOnlyItsOwnObservers) {
  Late<SettingGroup> late;
  IntSetting pending(late.ref(), QStringLiteral("reg.pending"), 0, false, false);
  RecordingSettingObserver watcher(&pending);
  Setting::pushAllSettings();
  pending.set(1);
  EXPECT_EQ(watcher.changed, 1);
  EXPECT_EQ(Setting::sRestoreList.first(), QList<Setting*>{&pending});
  EXPECT_TRUE(Setting::popAllSettings());
  EXPECT_EQ(pending.get(), 0);

  SettingGroup& group = late.construct(QStringLiteral("reg.pending"));
  RecordingGroupObserver groupWatcher(&group);
  pending.set(2);
  EXPECT_EQ(watcher.changed, 2);
  EXPECT_EQ(groupWatcher.changed, 1);
  EXPECT_EQ(groupWatcher.lastSetting, &pending);
}

TEST_F(Registry, GroupsAreListedNewestFirstAndNewestWinsByName) {
  const int before = SettingGroup::getGroupCount();
  SettingGroup older(QStringLiteral("reg.twin"));
  IntSetting inOlder(older, QStringLiteral("reg.shared"), 1, false, false);
  {
    SettingGroup newer(QStringLiteral("reg.twin"));
    IntSetting inNewer(newer, QStringLiteral("reg.shared"), 2, false, false);
    const int count = SettingGroup::getGroupCount();
    ASSERT_EQ(count, before + 2);
    EXPECT_EQ(SettingGroup::getGroup(0), &newer);
    EXPECT_EQ(SettingGroup::getGroup(1), &older);
    EXPECT_EQ(SettingGroup::getGroup(count), nullptr);
    EXPECT_EQ(SettingGroup::getGroup(-1), nullptr);
    EXPECT_EQ(SettingGroup::getGroup(QStringLiteral("reg.twin")), &newer);
    EXPECT_EQ(Setting::findSetting(QStringLiteral("reg.shared")), &inNewer);
  }
  EXPECT_EQ(SettingGroup::getGroupCount(), before + 1);
  EXPECT_EQ(SettingGroup::getGroup(QStringLiteral("reg.twin")), &older);
  EXPECT_EQ(Setting::findSetting(QStringLiteral("reg.shared")), &inOlder);
  EXPECT_EQ(SettingGroup::getGroup(QStringLiteral("reg.TWIN")), nullptr) << "case-sensitive";
  EXPECT_EQ(Setting::findSetting(QStringLiteral("reg.absent")), nullptr);
}

TEST_F(Registry, MembersByIndexAreBoundsCheckedAndLeaveWhenDestroyed) {
  SettingGroup group(QStringLiteral("reg.bounds"));
  BoolSetting first(group, QStringLiteral("first"), false, false, false);
  auto middle = std::make_unique<BoolSetting>(group, QStringLiteral("middle"), false, false, false);
  BoolSetting last(group, QStringLiteral("last"), false, false, false);
  middle.reset();
  ASSERT_EQ(group.getSettingCount(), 2);
  EXPECT_EQ(group.getSetting(0), &first);
  EXPECT_EQ(group.getSetting(1), &last);
  EXPECT_THROW(group.getSetting(2), std::out_of_range);
  EXPECT_THROW(group.getSetting(-1), std::out_of_range);
  EXPECT_EQ(group.getSetting(QStringLiteral("Last")), nullptr) << "case-sensitive";
  EXPECT_EQ(group.getSetting(QStringLiteral("last")), &last);
}

TEST_F(Registry, GroupDestroyedFirstLeavesSettingsOrphaned) {
  auto group = std::make_unique<SettingGroup>(QStringLiteral("reg.orphan"));
  auto orphan =
      std::make_unique<IntSetting>(*group, QStringLiteral("reg.orphan.v"), 1, false, false);
  RecordingSettingObserver watcher(orphan.get());
  RecordingGroupObserver groupWatcher(group.get());

  group.reset();
  EXPECT_EQ(SettingGroup::getGroup(QStringLiteral("reg.orphan")), nullptr);
  EXPECT_EQ(orphan->getGroup(), nullptr);
  EXPECT_EQ(Setting::findSetting(QStringLiteral("reg.orphan.v")), nullptr);
  orphan->set(2);  // only the setting's own observer hears of it
  EXPECT_EQ(watcher.changed, 1);
  EXPECT_EQ(groupWatcher.changed, 0);
  orphan.reset();  // touches no group
  EXPECT_EQ(watcher.preDeleted, 1);
}

}  // namespace
}  // namespace kestrel::test
