// Shared helpers of the settings tests.
#pragma once

#include <kestrel/settings.h>

#include <gtest/gtest.h>

#include <cstddef>
#include <cstring>
#include <functional>
#include <new>
#include <ostream>
#include <string>
#include <vector>

namespace kestrel::test {

using Journal = std::vector<std::string>;

// Storage for an object whose constructor runs later, the way static objects
// of another file may be constructed after the settings that name them. The
// storage holds garbage until then, as it would outside zero-filled statics.
template <typename T>
class Late {
 public:
  Late() { std::memset(mStorage, 0xA5, sizeof(mStorage)); }
  ~Late() {
    if (mConstructed) std::launder(reinterpret_cast<T*>(mStorage))->~T();
  }
  T& ref() { return *reinterpret_cast<T*>(mStorage); }
  T& construct(const QString& name) {
    mConstructed = true;
    return *new (mStorage) T(name);
  }

 private:
  alignas(T) std::byte mStorage[sizeof(T)];
  bool mConstructed = false;
};

// Records into an optional shared journal, so order across observers shows.
// A setting observer also notes the setting's text form when told of a change.
class RecordingSettingObserver : public SettingObserver {
 public:
  RecordingSettingObserver(Setting* s, Journal* journal = nullptr, std::string label = "s")
      : SettingObserver(s), mJournal(journal), mLabel(std::move(label)) {}
  void onChanged(const SettingEvent& event) override {
    ++changed;
    lastSetting = event.setting;
    seenText = event.setting->toString().toStdString();
    if (mJournal) mJournal->push_back(mLabel + ":changed");
    if (whenChanged) whenChanged(this);
  }
  void onPreDelete(const SettingEvent& event) override {
    ++preDeleted;
    lastSetting = event.setting;
    attachedDuringPreDelete = isAttached();
    if (mJournal) mJournal->push_back(mLabel + ":predelete");
    if (whenPreDeleted) whenPreDeleted(this);
  }
  int changed = 0, preDeleted = 0;
  Setting* lastSetting = nullptr;
  std::string seenText;
  bool attachedDuringPreDelete = true;
  std::function<void(RecordingSettingObserver*)> whenChanged, whenPreDeleted;

 private:
  Journal* mJournal;
  std::string mLabel;
};

class RecordingGroupObserver : public SettingGroupObserver {
 public:
  RecordingGroupObserver(SettingGroup* g, Journal* journal = nullptr, std::string label = "g")
      : SettingGroupObserver(g), mJournal(journal), mLabel(std::move(label)) {}
  void onChanged(const SettingGroupEvent& event) override {
    ++changed;
    record(event, ":changed");
  }
  void onPreDelete(const SettingGroupEvent& event) override {
    ++preDeleted;
    record(event, ":predelete");
  }
  int changed = 0, preDeleted = 0;
  SettingGroup* lastGroup = nullptr;
  Setting* lastSetting = reinterpret_cast<Setting*>(1);  // "never told"

 private:
  void record(const SettingGroupEvent& event, const char* what) {
    lastGroup = event.group;
    lastSetting = event.setting;
    if (mJournal) mJournal->push_back(mLabel + what);
  }
  Journal* mJournal;
  std::string mLabel;
};

// "name=text" of every member of `group`, in order, joined by ", ".
inline std::string members(const SettingGroup& group) {
  std::string out;
  for (int i = 0; i < group.getSettingCount(); ++i) {
    const Setting* s = group.getSetting(i);
    out += (i ? ", " : "") + (s->getName() + u'=' + s->toString()).toStdString();
  }
  return out;
}

// Leaves sCurrentModifier and the restore frames as the test found them.
class SettingsTest : public ::testing::Test {
 protected:
  void SetUp() override { mModifier = Setting::sCurrentModifier; }
  void TearDown() override {
    Setting::sCurrentModifier = mModifier;
    EXPECT_TRUE(Setting::sRestoreList.isEmpty()) << "a test left a restore frame open";
    while (Setting::popAllSettings()) continue;
  }

 private:
  void* mModifier = nullptr;
};

}  // namespace kestrel::test

// Lets gtest print QStrings in failure messages.
QT_BEGIN_NAMESPACE
inline void PrintTo(const QString& text, std::ostream* out) {
  *out << (text.isNull() ? std::string("(null QString)") : '"' + text.toStdString() + '"');
}
QT_END_NAMESPACE
