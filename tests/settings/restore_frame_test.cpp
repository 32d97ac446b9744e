// Restore frames and the typed setter: recording, roll-back, nesting and the
// modifier stamp.
#include "settings/settings_test_support.h"

#include <memory>

namespace kestrel::test {
namespace {

using RestoreFrames = SettingsTest;

TEST_F(RestoreFrames, NestedFramesEachRestoreTheirOpeningSilently) {
  SettingGroup group(QStringLiteral("frame.nested"));
  IntSetting number(group, QStringLiteral("number"), 1, false, false);
  StringSetting text(group, QStringLiteral("text"), QStringLiteral("a"), false, false);
  IntPairSetting pair(group, QStringLiteral("pair"), {0, 0}, false, false);
  RecordingSettingObserver watcher(&number);
  RecordingGroupObserver groupWatcher(&group);

  number.set(7);
  EXPECT_FALSE(Setting::popAllSettings()) << "no frame open";
  EXPECT_FALSE(number.popSetting()) << "no frame open, so the old value was not saved";
  number.set(1);

  Setting::pushAllSettings();
  number.set(2);
  text.set(QStringLiteral("b"));
  Setting::pushAllSettings();
  number.set(3);
  number.set(4);
  pair.fromString(QStringLiteral("5 6"));
  ASSERT_EQ(Setting::sRestoreList.size(), 2);
  EXPECT_EQ(Setting::sRestoreList.at(0), (QList<Setting*>{&pair, &number, &number}))
      << "one record per change, most recent first";
  EXPECT_EQ(Setting::sRestoreList.at(1).size(), 2) << "only the innermost frame records";
  const int told = watcher.changed;
  const int groupTold = groupWatcher.changed;

  EXPECT_TRUE(Setting::popAllSettings());
  EXPECT_EQ(members(group), "number=2, text=b, pair=0 0");
  EXPECT_TRUE(Setting::popAllSettings());
  EXPECT_EQ(members(group), "number=1, text=a, pair=0 0");
  EXPECT_FALSE(Setting::popAllSettings());
  EXPECT_EQ(watcher.changed, told);
  EXPECT_EQ(groupWatcher.changed, groupTold);
  EXPECT_FALSE(number.popSetting()) << "the value stack is empty again";
}

TEST_F(RestoreFrames, EqualValueOnlyStampsTheModifier) {
  SettingGroup group(QStringLiteral("frame.equal"));
  DoubleSetting setting(group, QStringLiteral("d"), 0.5, false, false);
  RecordingSettingObserver watcher(&setting);
  int caller = 0;

  Setting::pushAllSettings();
  Setting::sCurrentModifier = &caller;
  setting.set(0.5);
  EXPECT_EQ(setting.getModifier(), &caller);
  EXPECT_EQ(watcher.changed, 0);
  EXPECT_TRUE(Setting::sRestoreList.first().isEmpty());
  EXPECT_FALSE(setting.popSetting()) << "nothing was pushed";

  Setting::sCurrentModifier = nullptr;
  setting.set(0.25);
  EXPECT_EQ(setting.getModifier(), nullptr) << "every set copies the current modifier";
  EXPECT_EQ(watcher.changed, 1);
  EXPECT_TRUE(Setting::popAllSettings());
  EXPECT_EQ(setting.get(), 0.5);
}

TEST_F(RestoreFrames, PopWalksMostRecentFirstAndSkipsDestroyedSettings) {
  class JournalingSetting : public IntSetting {
   public:
    JournalingSetting(SettingGroup& group, const char* name, Journal* journal)
        : IntSetting(group, QString::fromLatin1(name), 0, false, false), mJournal(journal) {}
    ~JournalingSetting() override { notifyPreDelete(); }
    bool popSetting() override {
      mJournal->push_back(getName().toStdString());
      return IntSetting::popSetting();
    }

   private:
    Journal* mJournal;
  };
  SettingGroup group(QStringLiteral("frame.order"));
  Journal journal;
  JournalingSetting a(group, "a", &journal);
  JournalingSetting b(group, "b", &journal);
  auto doomed = std::make_unique<JournalingSetting>(group, "doomed", &journal);

  Setting::pushAllSettings();
  a.set(1);
  doomed->set(1);
  b.set(1);
  b.set(2);
  doomed.reset();
  EXPECT_TRUE(Setting::popAllSettings());  // must not reach the destroyed setting
  EXPECT_EQ(journal, (Journal{"b", "b", "a"}));
  EXPECT_EQ(a.get(), 0);
  EXPECT_EQ(b.get(), 0);
}

// The frame being popped is taken off the list before it is walked: a
// popSetting() that sets another setting is recorded in the enclosing frame,
// so popping that frame later restores the other setting too.
TEST_F(RestoreFrames, RollBackThatSetsAnotherSettingIsRecordedInTheEnclosingFrame) {
  class Leader : public IntSetting {
   public:
    Leader(SettingGroup& group, IntSetting* follower)
        : IntSetting(group, QStringLiteral("x"), 0, false, false), mFollower(follower) {}
    ~Leader() override { notifyPreDelete(); }
    bool popSetting() override {
      const bool popped = IntSetting::popSetting();
      mFollower->set(get() + 100);
      return popped;
    }

   private:
    IntSetting* mFollower;
  };
  SettingGroup group(QStringLiteral("frame.follow"));
  IntSetting y(group, QStringLiteral("y"), 0, false, false);
  Leader x(group, &y);

  Setting::pushAllSettings();
  y.set(1);
  Setting::pushAllSettings();
  x.set(5);
  EXPECT_TRUE(Setting::popAllSettings());
  EXPECT_EQ(x.get(), 0);
  EXPECT_EQ(y.get(), 100) << "set by x's roll-back";
  ASSERT_EQ(Setting::sRestoreList.size(), 1);
  EXPECT_EQ(Setting::sRestoreList.first(), (QList<Setting*>{&y, &y}));

  EXPECT_TRUE(Setting::popAllSettings());
  EXPECT_EQ(y.get(), 0) << "the value that stood when the outer frame opened";
  EXPECT_FALSE(y.popSetting()) << "no stray saved value left on y's stack";

  // With no enclosing frame the roll-back's change is recorded nowhere.
  Setting::pushAllSettings();
  x.set(7);
  EXPECT_TRUE(Setting::popAllSettings());
  EXPECT_EQ(y.get(), 100);
  EXPECT_FALSE(y.popSetting());
  EXPECT_TRUE(Setting::sRestoreList.isEmpty());
}

}  // namespace
}  // namespace kestrel::test
