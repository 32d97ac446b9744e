// The setting registry: groups, pending settings, lookup and destruction order.
#include "settings/settings_test_support.h"

#include <memory>
#include <stdexcept>

namespace kestrel::test {
namespace {

using Registry = SettingsTest;

TEST_F(Registry, PendingSettingsAreAdoptedInReverseOrderAndLaterOnesAppended) {
  Late<SettingGroup> late;
  IntSetting s1(late.ref(), QStringLiteral("reg.adopt.s1"), 1, false, false);
  IntSetting s2(late.ref(), QStringLiteral("reg.adopt.s2"), 2, false, false);
  IntSetting s3(late.ref(), QStringLiteral("reg.adopt.s3"), 3, false, false);
  EXPECT_EQ(Setting::findSetting(QStringLiteral("reg.adopt.s1")), nullptr)
      << "a pending setting is not in any group yet";

  SettingGroup& group = late.construct(QStringLiteral("reg.adopt"));
  IntSetting s4(group, QStringLiteral("reg.adopt.s4"), 4, false, false);

  const std::vector<QString> expected{QStringLiteral("reg.adopt.s3"),
                                      QStringLiteral("reg.adopt.s2"),
                                      QStringLiteral("reg.adopt.s1"),
                                      QStringLiteral("reg.adopt.s4")};
  EXPECT_EQ(memberNames(group), expected);
  EXPECT_EQ(group.getSetting(QStringLiteral("reg.adopt.s1")), &s1);
  EXPECT_EQ(Setting::findSetting(QStringLiteral("reg.adopt.s1")), &s1);
  EXPECT_EQ(s1.getGroup(), &group);
  late.destroy();
}

TEST_F(Registry, GroupAdoptsOnlyItsOwnPendingSettings) {
  Late<SettingGroup> a;
  Late<SettingGroup> b;
  IntSetting a1(a.ref(), QStringLiteral("reg.own.a1"), 0, false, false);
  IntSetting b1(b.ref(), QStringLiteral("reg.own.b1"), 0, false, false);
  IntSetting a2(a.ref(), QStringLiteral("reg.own.a2"), 0, false, false);

  a.construct(QStringLiteral("reg.own.a"));
  EXPECT_EQ(memberNames(a.ref()),
            (std::vector<QString>{QStringLiteral("reg.own.a2"), QStringLiteral("reg.own.a1")}));
  EXPECT_EQ(Setting::findSetting(QStringLiteral("reg.own.b1")), nullptr);

  b.construct(QStringLiteral("reg.own.b"));
  EXPECT_EQ(memberNames(b.ref()), std::vector<QString>{QStringLiteral("reg.own.b1")});
  EXPECT_EQ(Setting::findSetting(QStringLiteral("reg.own.b1")), &b1);
}

// Deliberate choice of this library: such a setting only leaves the pending
// list, the group that never adopted it is not touched.
TEST_F(Registry, SettingDestroyedWhilePendingIsNeverAdopted) {
  Late<SettingGroup> late;
  IntSetting kept(late.ref(), QStringLiteral("reg.pending.kept"), 0, false, false);
  {
    IntSetting gone(late.ref(), QStringLiteral("reg.pending.gone"), 0, false, false);
    auto first = std::make_unique<IntSetting>(late.ref(), QStringLiteral("reg.pending.first"), 0,
                                              false, false);
    first.reset();  // unlinks the head of the pending list
  }  // unlinks from the middle

  SettingGroup& group = late.construct(QStringLiteral("reg.pending"));
  EXPECT_EQ(memberNames(group), std::vector<QString>{QStringLiteral("reg.pending.kept")});
}

// A static setting may change (memory counters, for one) before the
// constructor of its group has run; the group is not read until it exists.
TEST_F(Registry, PendingSettingChangeTellsOnlyItsOwnObservers) {
  Late<SettingGroup> late;
  IntSetting pending(late.ref(), QStringLiteral("reg.pending.change"), 0, false, false);
  RecordingSettingObserver watcher(&pending, nullptr, "w");
  Setting::pushAllSettings();
  pending.set(1);
  EXPECT_EQ(watcher.changed, 1);
  EXPECT_EQ(Setting::sRestoreList.first(), QList<Setting*>{&pending});
  EXPECT_TRUE(Setting::popAllSettings());
  EXPECT_EQ(pending.get(), 0);

  SettingGroup& group = late.construct(QStringLiteral("reg.pending.change"));
  RecordingGroupObserver groupWatcher(&group, nullptr, "g");
  pending.set(2);
  EXPECT_EQ(watcher.changed, 2);
  EXPECT_EQ(groupWatcher.changed, 1);
  EXPECT_EQ(groupWatcher.lastSetting, &pending);
}

TEST_F(Registry, GroupsAreListedNewestFirstAndCountedWhileAlive) {
  const int before = SettingGroup::getGroupCount();
  {
    SettingGroup older(QStringLiteral("reg.list.older"));
    SettingGroup newer(QStringLiteral("reg.list.newer"));
    const int count = SettingGroup::getGroupCount();
    ASSERT_EQ(count, before + 2);
    EXPECT_EQ(SettingGroup::getGroup(0), &newer);
    EXPECT_EQ(SettingGroup::getGroup(1), &older);
    EXPECT_EQ(SettingGroup::getGroup(count), nullptr);
    EXPECT_EQ(SettingGroup::getGroup(-1), nullptr);
    EXPECT_NE(SettingGroup::getGroup(count - 1), nullptr);
  }
  EXPECT_EQ(SettingGroup::getGroupCount(), before);
}

TEST_F(Registry, GroupWithRepeatedNameResolvesToNewestOne) {
  SettingGroup first(QStringLiteral("reg.twin"));
  {
    SettingGroup second(QStringLiteral("reg.twin"));
    EXPECT_EQ(SettingGroup::getGroup(QStringLiteral("reg.twin")), &second);
  }
  EXPECT_EQ(SettingGroup::getGroup(QStringLiteral("reg.twin")), &first);
  EXPECT_EQ(SettingGroup::getGroup(QStringLiteral("reg.TWIN")), nullptr) << "case-sensitive";
  EXPECT_EQ(SettingGroup::getGroup(QStringLiteral("reg.no-such-group")), nullptr);
}

TEST_F(Registry, GetSettingByIndexIsBoundsChecked) {
  SettingGroup group(QStringLiteral("reg.bounds"));
  BoolSetting first(group, QStringLiteral("first"), false, false, false);
  BoolSetting second(group, QStringLiteral("second"), false, false, false);

  EXPECT_EQ(group.getSettingCount(), 2);
  EXPECT_EQ(group.getSetting(0), &first);
  EXPECT_EQ(group.getSetting(1), &second);
  EXPECT_THROW(group.getSetting(group.getSettingCount()), std::out_of_range);
  EXPECT_THROW(group.getSetting(-1), std::out_of_range);
  EXPECT_EQ(group.getSetting(QStringLiteral("third")), nullptr);
  EXPECT_EQ(group.getSetting(QStringLiteral("First")), nullptr) << "case-sensitive";
}

TEST_F(Registry, FindSettingPrefersNewestGroup) {
  SettingGroup older(QStringLiteral("reg.find.older"));
  IntSetting inOlder(older, QStringLiteral("reg.find.shared"), 1, false, false);
  SettingGroup newer(QStringLiteral("reg.find.newer"));
  IntSetting inNewer(newer, QStringLiteral("reg.find.shared"), 2, false, false);

  EXPECT_EQ(Setting::findSetting(QStringLiteral("reg.find.shared")), &inNewer);
  EXPECT_EQ(Setting::findSetting(QStringLiteral("reg.find.absent")), nullptr);
}

TEST_F(Registry, SettingDestroyedBeforeGroupLeavesIt) {
  SettingGroup group(QStringLiteral("reg.leave"));
  IntSetting a(group, QStringLiteral("a"), 0, false, false);
  auto b = std::make_unique<IntSetting>(group, QStringLiteral("b"), 0, false, false);
  IntSetting c(group, QStringLiteral("c"), 0, false, false);

  b.reset();
  EXPECT_EQ(memberNames(group), (std::vector<QString>{QStringLiteral("a"), QStringLiteral("c")}));
  EXPECT_EQ(group.getSetting(QStringLiteral("b")), nullptr);
}

TEST_F(Registry, GroupDestroyedFirstLeavesSettingsOrphaned) {
  auto group = std::make_unique<SettingGroup>(QStringLiteral("reg.orphan"));
  auto orphan = std::make_unique<IntSetting>(*group, QStringLiteral("reg.orphan.value"), 1,
                                             false, false);
  RecordingSettingObserver watcher(orphan.get(), nullptr, "setting");
  RecordingGroupObserver groupWatcher(group.get(), nullptr, "group");
  const int before = SettingGroup::getGroupCount();

  group.reset();
  EXPECT_EQ(SettingGroup::getGroupCount(), before - 1);
  EXPECT_EQ(SettingGroup::getGroup(QStringLiteral("reg.orphan")), nullptr);
  EXPECT_EQ(orphan->getGroup(), nullptr);
  EXPECT_EQ(Setting::findSetting(QStringLiteral("reg.orphan.value")), nullptr);
  EXPECT_EQ(groupWatcher.preDeleted, 1);
  EXPECT_FALSE(groupWatcher.isAttached());

  orphan->set(2);  // only the setting's own observer hears of it
  EXPECT_EQ(watcher.changed, 1);
  EXPECT_EQ(groupWatcher.changed, 0);
  EXPECT_EQ(orphan->get(), 2);

  orphan.reset();  // touches no group
  EXPECT_EQ(watcher.preDeleted, 1);
}

}  // namespace
}  // namespace kestrel::test
