// Observers of settings and groups: order, enabling, detaching, and every
// order of destruction between observers and their subjects.
#include "settings/settings_test_support.h"

#include <memory>

namespace kestrel::test {
namespace {

using Observers = SettingsTest;

TEST_F(Observers, OrderEnablingAndDetachingDuringNotification) {
  SettingGroup group(QStringLiteral("obs.order"));
  IntSetting setting(group, QStringLiteral("value"), 0, false, false);
  Journal journal;
  RecordingGroupObserver g1(&group, &journal, "g1");
  RecordingSettingObserver s1(&setting, &journal, "s1");
  RecordingGroupObserver g2(&group, &journal, "g2");
  RecordingSettingObserver s2(&setting, &journal, "s2");

  // Newest first, the setting's own observers before its group's.
  setting.set(5);
  const Journal all{"s2:changed", "s1:changed", "g2:changed", "g1:changed"};
  EXPECT_EQ(journal, all);
  EXPECT_EQ(s1.seenText, "5") << "observers run after the value is stored";
  EXPECT_EQ(g1.lastGroup, &group);
  EXPECT_EQ(g1.lastSetting, &setting);
  journal.clear();
  setting.notifyChanged();  // an explicit announcement reaches both lists too
  EXPECT_EQ(journal, all);

  s2.setEnabled(false);
  g1.setEnabled(false);
  journal.clear();
  setting.set(6);
  EXPECT_EQ(journal, (Journal{"s1:changed", "g2:changed"}));
  EXPECT_TRUE(s2.isAttached() && g1.isAttached()) << "disabled observers stay linked";

  s2.setEnabled(true);
  s2.whenChanged = [](RecordingSettingObserver* self) { self->detach(); };
  journal.clear();
  setting.set(7);
  setting.set(8);
  EXPECT_EQ(journal,
            (Journal{"s2:changed", "s1:changed", "g2:changed", "s1:changed", "g2:changed"}))
      << "the walk continues past an observer that detached itself";
  EXPECT_FALSE(s2.isAttached());
}

TEST_F(Observers, SettingDeathDetachesEachObserverBeforeItsHandler) {
  SettingGroup group(QStringLiteral("obs.predelete"));
  Journal journal;
  auto setting = std::make_unique<CountSetting>(group, QStringLiteral("count"), 0, false, false);
  RecordingSettingObserver older(setting.get(), &journal, "older");
  RecordingSettingObserver newer(setting.get(), &journal, "newer");
  RecordingGroupObserver groupWatcher(&group, &journal, "group");
  SettingType seenType = TypeBool;
  newer.whenPreDeleted = [&](RecordingSettingObserver* self) {
    seenType = self->lastSetting->getType();  // still of its full type
  };
  int selfDeleted = 0;
  for (int i = 0; i < 3; ++i) {
    auto* watcher = new RecordingSettingObserver(setting.get());
    watcher->whenPreDeleted = [&selfDeleted](RecordingSettingObserver* self) {
      ++selfDeleted;
      delete self;  // AddressSanitizer reports any later use
    };
  }
  Setting* const address = setting.get();

  setting.reset();
  EXPECT_EQ(journal, (Journal{"newer:predelete", "older:predelete"}))
      << "group observers are not told when a setting dies";
  EXPECT_EQ(selfDeleted, 3);
  EXPECT_FALSE(older.attachedDuringPreDelete || newer.attachedDuringPreDelete);
  EXPECT_FALSE(older.isAttached());
  EXPECT_EQ(older.lastSetting, address);
  EXPECT_EQ(seenType, TypeCount);
  EXPECT_EQ(group.getSettingCount(), 0);
}

TEST_F(Observers, GroupDeathTellsGroupObserversOnceAndDetachesThem) {
  auto group = std::make_unique<SettingGroup>(QStringLiteral("obs.groupdeath"));
  SettingGroup* const address = group.get();
  IntSetting member(*group, QStringLiteral("member"), 0, false, false);
  Journal journal;
  RecordingGroupObserver older(group.get(), &journal, "older");
  RecordingGroupObserver newer(group.get(), &journal, "newer");

  group.reset();
  EXPECT_EQ(journal, (Journal{"newer:predelete", "older:predelete"}));
  EXPECT_EQ(newer.lastGroup, address);
  EXPECT_EQ(newer.lastSetting, nullptr);
  EXPECT_FALSE(older.isAttached() || newer.isAttached());
  member.set(1);
  EXPECT_EQ(older.changed + newer.changed, 0);
}

TEST_F(Observers, NullSubjectsAndEveryDestructionOrderAreClean) {
  RecordingSettingObserver onNull(nullptr);
  RecordingGroupObserver groupOnNull(nullptr);
  EXPECT_FALSE(onNull.isAttached() || groupOnNull.isAttached());
  onNull.detach();  // harmless when never attached
  std::unique_ptr<RecordingSettingObserver> watcher;
  std::unique_ptr<RecordingGroupObserver> groupWatcher;
  {
    SettingGroup group(QStringLiteral("obs.lifetime"));
    IntSetting setting(group, QStringLiteral("v"), 0, false, false);
    {
      RecordingSettingObserver early(&setting);
      RecordingGroupObserver groupEarly(&group);
    }  // observers first: the subjects must not reach them afterwards
    watcher = std::make_unique<RecordingSettingObserver>(&setting);
    groupWatcher = std::make_unique<RecordingGroupObserver>(&group);
    setting.set(1);
  }  // subjects first: the observers outlive them
  EXPECT_FALSE(watcher->isAttached() || groupWatcher->isAttached());
  EXPECT_EQ(watcher->preDeleted, 1);
  EXPECT_EQ(groupWatcher->preDeleted, 1);
}

}  // namespace
}  // namespace kestrel::test
