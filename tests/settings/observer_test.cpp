// Observers of settings and groups: order, enabling, detaching, and every
// order of destruction between observers and their subjects.
#include "settings/settings_test_support.h"

#include <memory>

namespace kestrel::test {
namespace {

using Observers = SettingsTest;
using Journal = std::vector<std::string>;

TEST_F(Observers, NewestObserverIsToldFirstAndSettingObserversBeforeGroupObservers) {
  SettingGroup group(QStringLiteral("obs.order"));
  IntSetting setting(group, QStringLiteral("value"), 0, false, false);
  Journal journal;
  RecordingGroupObserver g1(&group, &journal, "g1");
  RecordingSettingObserver s1(&setting, &journal, "s1");
  RecordingGroupObserver g2(&group, &journal, "g2");
  RecordingSettingObserver s2(&setting, &journal, "s2");

  setting.set(5);
  EXPECT_EQ(journal, (Journal{"s2:changed", "s1:changed", "g2:changed", "g1:changed"}));
  EXPECT_EQ(s1.lastSetting, &setting);
  EXPECT_EQ(g1.lastGroup, &group);
  EXPECT_EQ(g1.lastSetting, &setting);

  journal.clear();
  setting.notifyChanged();  // explicit announcement reaches both lists too
  EXPECT_EQ(journal, (Journal{"s2:changed", "s1:changed", "g2:changed", "g1:changed"}));
}

TEST_F(Observers, DisabledObserverStaysLinkedButIsSkipped) {
  SettingGroup group(QStringLiteral("obs.enabled"));
  BoolSetting setting(group, QStringLiteral("flag"), false, false, false);
  RecordingSettingObserver watcher(&setting, nullptr, "w");
  RecordingGroupObserver groupWatcher(&group, nullptr, "g");
  EXPECT_TRUE(watcher.isEnabled());

  watcher.setEnabled(false);
  groupWatcher.setEnabled(false);
  setting.set(true);
  EXPECT_EQ(watcher.changed, 0);
  EXPECT_EQ(groupWatcher.changed, 0);
  EXPECT_TRUE(watcher.isAttached());
  EXPECT_TRUE(groupWatcher.isAttached());

  watcher.setEnabled(true);
  groupWatcher.setEnabled(true);
  setting.set(false);
  EXPECT_EQ(watcher.changed, 1);
  EXPECT_EQ(groupWatcher.changed, 1);
}

TEST_F(Observers, ObserverOnNullSubjectIsNeverCalled) {
  auto settingWatcher = std::make_unique<RecordingSettingObserver>(nullptr, nullptr, "s");
  auto groupWatcher = std::make_unique<RecordingGroupObserver>(nullptr, nullptr, "g");
  EXPECT_FALSE(settingWatcher->isAttached());
  EXPECT_FALSE(groupWatcher->isAttached());
  {
    SettingGroup group(QStringLiteral("obs.null"));
    IntSetting setting(group, QStringLiteral("value"), 0, false, false);
    setting.set(1);
  }
  EXPECT_EQ(settingWatcher->changed + settingWatcher->preDeleted, 0);
  EXPECT_EQ(groupWatcher->changed + groupWatcher->preDeleted, 0);
  settingWatcher->detach();  // harmless when never attached
  settingWatcher.reset();
  groupWatcher.reset();
}

TEST_F(Observers, PreDeleteDetachesEachObserverBeforeItsHandler) {
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
  Setting* const address = setting.get();

  setting.reset();
  EXPECT_EQ(journal, (Journal{"newer:predelete", "older:predelete"}))
      << "group observers are not told when a setting dies";
  EXPECT_FALSE(older.attachedDuringPreDelete);
  EXPECT_FALSE(newer.attachedDuringPreDelete);
  EXPECT_FALSE(older.isAttached());
  EXPECT_EQ(older.lastSetting, address);
  EXPECT_EQ(seenType, TypeCount);
  EXPECT_EQ(group.getSettingCount(), 0);
}

TEST_F(Observers, ObserverMayDeleteItselfInPreDelete) {
  SettingGroup group(QStringLiteral("obs.selfdelete"));
  auto setting = std::make_unique<IntPairSetting>(group, QStringLiteral("pair"),
                                                  std::pair<int, int>{1, 2}, false, false);
  int told = 0;
  for (int i = 0; i < 3; ++i) {
    auto* watcher = new RecordingSettingObserver(setting.get(), nullptr, "w");
    watcher->whenPreDeleted = [&told](RecordingSettingObserver* self) {
      ++told;
      delete self;
    };
  }
  setting.reset();  // AddressSanitizer reports any use of a deleted observer
  EXPECT_EQ(told, 3);
}

TEST_F(Observers, ObserverMayDetachItselfWhileBeingNotified) {
  SettingGroup group(QStringLiteral("obs.detach"));
  IntSetting setting(group, QStringLiteral("value"), 0, false, false);
  RecordingSettingObserver older(&setting, nullptr, "older");

  class DetachOnChange : public SettingObserver {
   public:
    using SettingObserver::SettingObserver;
    void onChanged(const SettingEvent&) override {
      ++changed;
      detach();
    }
    void onPreDelete(const SettingEvent&) override { ++preDeleted; }
    int changed = 0;
    int preDeleted = 0;
  } newer(setting);

  setting.set(1);
  EXPECT_EQ(newer.changed, 1);
  EXPECT_EQ(older.changed, 1) << "the walk continues past a detached observer";
  EXPECT_FALSE(newer.isAttached());
  setting.set(2);
  EXPECT_EQ(newer.changed, 1);
  EXPECT_EQ(older.changed, 2);
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
  EXPECT_FALSE(older.isAttached());
  EXPECT_FALSE(newer.isAttached());

  member.set(1);
  EXPECT_EQ(older.changed + newer.changed, 0);
}

TEST_F(Observers, AnyDestructionOrderOfObserverAndSubjectIsClean) {
  // Observer first, then subject.
  {
    SettingGroup group(QStringLiteral("obs.order1"));
    IntSetting setting(group, QStringLiteral("v"), 0, false, false);
    auto watcher = std::make_unique<RecordingSettingObserver>(&setting, nullptr, "w");
    auto groupWatcher = std::make_unique<RecordingGroupObserver>(&group, nullptr, "g");
    watcher.reset();
    groupWatcher.reset();
    setting.set(1);  // must not reach the destroyed observers
  }
  // Subject first, then observer: the observer outlives both.
  auto watcher = std::make_unique<RecordingSettingObserver>(nullptr, nullptr, "w");
  auto groupWatcher = std::make_unique<RecordingGroupObserver>(nullptr, nullptr, "g");
  {
    SettingGroup group(QStringLiteral("obs.order2"));
    IntSetting setting(group, QStringLiteral("v"), 0, false, false);
    watcher = std::make_unique<RecordingSettingObserver>(&setting, nullptr, "w");
    groupWatcher = std::make_unique<RecordingGroupObserver>(&group, nullptr, "g");
  }
  EXPECT_FALSE(watcher->isAttached());
  EXPECT_FALSE(groupWatcher->isAttached());
  EXPECT_EQ(watcher->preDeleted, 1);
  EXPECT_EQ(groupWatcher->preDeleted, 1);
  watcher->detach();
  watcher.reset();
  groupWatcher.reset();
}

}  // namespace
}  // namespace kestrel::test
