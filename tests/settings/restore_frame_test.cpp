// Restore frames and the typed setter: recording, roll-back, nesting and the
// modifier stamp.
#include "settings/settings_test_support.h"

#include <memory>

namespace kestrel::test {
namespace {

using RestoreFrames = SettingsTest;

TEST_F(RestoreFrames, PopWithoutOpenFrameReturnsFalseAndChangesNothing) {
  ASSERT_TRUE(Setting::sRestoreList.isEmpty());
  SettingGroup group(QStringLiteral("frame.none"));
  IntSetting setting(group, QStringLiteral("v"), 1, false, false);
  setting.set(2);
  EXPECT_FALSE(Setting::popAllSettings());
  EXPECT_EQ(setting.get(), 2);
  EXPECT_FALSE(setting.popSetting()) << "no frame open, so the old value was not saved";
}

TEST_F(RestoreFrames, PopRestoresValueSilently) {
  SettingGroup group(QStringLiteral("frame.silent"));
  IntSetting setting(group, QStringLiteral("v"), 1, false, false);
  RecordingSettingObserver watcher(&setting, nullptr, "w");
  RecordingGroupObserver groupWatcher(&group, nullptr, "g");

  Setting::pushAllSettings();
  setting.set(2);
  setting.set(3);
  ASSERT_EQ(Setting::sRestoreList.size(), 1);
  EXPECT_EQ(Setting::sRestoreList.first(), (QList<Setting*>{&setting, &setting}))
      << "one record per change";
  EXPECT_TRUE(Setting::popAllSettings());

  EXPECT_EQ(setting.get(), 1);
  EXPECT_EQ(watcher.changed, 2);
  EXPECT_EQ(groupWatcher.changed, 2);
  EXPECT_TRUE(Setting::sRestoreList.isEmpty());
  EXPECT_FALSE(setting.popSetting()) << "the value stack is empty again";
}

TEST_F(RestoreFrames, NestedFramesRestoreTheValuesOfTheirOwnOpening) {
  SettingGroup group(QStringLiteral("frame.nested"));
  IntSetting number(group, QStringLiteral("number"), 1, false, false);
  StringSetting text(group, QStringLiteral("text"), QStringLiteral("a"), false, false);
  IntPairSetting pair(group, QStringLiteral("pair"), {0, 0}, false, false);
  QDateTimeSetting when(group, QStringLiteral("when"), QDateTime(QDate(2006, 7, 4), QTime(9, 5)),
                        false, false);

  Setting::pushAllSettings();
  number.set(2);
  text.set(QStringLiteral("b"));

  Setting::pushAllSettings();
  number.set(3);
  number.set(4);
  pair.fromString(QStringLiteral("5 6"));
  when.set(QDateTime(QDate(2010, 1, 1), QTime(0, 0)));
  EXPECT_EQ(Setting::sRestoreList.size(), 2);
  EXPECT_EQ(Setting::sRestoreList.at(1).size(), 2) << "only the innermost frame records";

  EXPECT_TRUE(Setting::popAllSettings());
  EXPECT_EQ(number.get(), 2);
  EXPECT_EQ(text.get(), QStringLiteral("b"));
  EXPECT_EQ(pair.get(), (std::pair<int, int>{0, 0}));
  EXPECT_EQ(when.get(), QDateTime(QDate(2006, 7, 4), QTime(9, 5)));

  EXPECT_TRUE(Setting::popAllSettings());
  EXPECT_EQ(number.get(), 1);
  EXPECT_EQ(text.get(), QStringLiteral("a"));
  EXPECT_FALSE(Setting::popAllSettings());
}

TEST_F(RestoreFrames, EqualValueOnlyStampsTheModifier) {
  SettingGroup group(QStringLiteral("frame.equal"));
  DoubleSetting setting(group, QStringLiteral("d"), 0.5, false, false);
  RecordingSettingObserver watcher(&setting, nullptr, "w");
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

TEST_F(RestoreFrames, SettingDestroyedInsideFrameIsDroppedFromIt) {
  SettingGroup group(QStringLiteral("frame.destroyed"));
  IntSetting survivor(group, QStringLiteral("survivor"), 1, false, false);
  auto doomed = std::make_unique<IntSetting>(group, QStringLiteral("doomed"), 1, false, false);

  Setting::pushAllSettings();
  doomed->set(2);
  survivor.set(2);
  doomed.reset();
  EXPECT_EQ(Setting::sRestoreList.first(), QList<Setting*>{&survivor});
  EXPECT_TRUE(Setting::popAllSettings());  // must not reach the destroyed setting
  EXPECT_EQ(survivor.get(), 1);
}

TEST_F(RestoreFrames, PoppedValueCanBeAnnouncedExplicitly) {
  SettingGroup group(QStringLiteral("frame.announce"));
  BoolSetting setting(group, QStringLiteral("b"), false, false, false);
  RecordingSettingObserver watcher(&setting, nullptr, "w");

  Setting::pushAllSettings();
  setting.set(true);
  Setting::popAllSettings();
  EXPECT_EQ(watcher.changed, 1);
  setting.notifyChanged();
  EXPECT_EQ(watcher.changed, 2);
  EXPECT_FALSE(setting.get());
}

TEST_F(RestoreFrames, PopWalksTheFrameMostRecentChangeFirst) {
  class JournalingSetting : public IntSetting {
   public:
    JournalingSetting(SettingGroup& group, const char* name, std::vector<std::string>* journal)
        : IntSetting(group, QString::fromLatin1(name), 0, false, false),
          mName(name),
          mJournal(journal) {}
    ~JournalingSetting() override { notifyPreDelete(); }
    bool popSetting() override {
      mJournal->push_back(mName);
      return IntSetting::popSetting();
    }

   private:
    std::string mName;
    std::vector<std::string>* mJournal;
  };
  SettingGroup group(QStringLiteral("frame.order"));
  std::vector<std::string> journal;
  JournalingSetting a(group, "a", &journal);
  JournalingSetting b(group, "b", &journal);

  Setting::pushAllSettings();
  a.set(1);
  b.set(1);
  b.set(2);
  Setting::popAllSettings();
  EXPECT_EQ(journal, (std::vector<std::string>{"b", "b", "a"}));
  EXPECT_EQ(a.get(), 0);
  EXPECT_EQ(b.get(), 0);
}

TEST_F(RestoreFrames, ValueStackIsLastInFirstOut) {
  SettingGroup group(QStringLiteral("frame.stack"));
  FloatSetting setting(group, QStringLiteral("f"), 1.0f, false, false);
  setting.pushSetting();
  setting.set(2.0f);
  setting.pushSetting();
  setting.set(3.0f);

  EXPECT_TRUE(setting.popSetting());
  EXPECT_EQ(setting.get(), 2.0f);
  EXPECT_TRUE(setting.popSetting());
  EXPECT_EQ(setting.get(), 1.0f);
  EXPECT_FALSE(setting.popSetting());
  EXPECT_EQ(setting.get(), 1.0f);
}

}  // namespace
}  // namespace kestrel::test
