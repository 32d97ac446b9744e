// Shared helpers of the settings tests.
#pragma once

#include <kestrel/settings.h>

#include <gtest/gtest.h>

#include <QString>

#include <cstddef>
#include <cstring>
#include <functional>
#include <new>
#include <ostream>
#include <string>
#include <vector>

namespace kestrel::test {

// Storage for an object whose constructor runs later, the way static objects
// of another file may be constructed after the settings that name them.
template <typename T>
class Late {
 public:
  // The storage holds garbage, as an object's storage does before its
  // constructor runs (outside zero-filled static storage).
  Late() { std::memset(mStorage, 0xA5, sizeof(mStorage)); }
  Late(const Late&) = delete;
  Late& operator=(const Late&) = delete;
  ~Late() { destroy(); }

  // The object-to-be, usable as a constructor argument before it exists.
  T& ref() { return *reinterpret_cast<T*>(mStorage); }

  template <typename... Args>
  T& construct(Args&&... args) {
    T* object = new (mStorage) T(std::forward<Args>(args)...);
    mConstructed = true;
    return *object;
  }

  void destroy() {
    if (mConstructed) std::launder(reinterpret_cast<T*>(mStorage))->~T();
    mConstructed = false;
  }

 private:
  alignas(T) std::byte mStorage[sizeof(T)];
  bool mConstructed = false;
};

// Records what a setting observer is told into a shared journal, so order
// across several observers can be checked.
class RecordingSettingObserver : public SettingObserver {
 public:
  RecordingSettingObserver(Setting* setting, std::vector<std::string>* journal,
                           std::string label)
      : SettingObserver(setting), mJournal(journal), mLabel(std::move(label)) {}

  void onChanged(const SettingEvent& event) override {
    ++changed;
    lastSetting = event.setting;
    if (mJournal) mJournal->push_back(mLabel + ":changed");
  }
  void onPreDelete(const SettingEvent& event) override {
    ++preDeleted;
    lastSetting = event.setting;
    attachedDuringPreDelete = isAttached();
    if (mJournal) mJournal->push_back(mLabel + ":predelete");
    if (whenPreDeleted) whenPreDeleted(this);
  }

  int changed = 0;
  int preDeleted = 0;
  Setting* lastSetting = nullptr;
  bool attachedDuringPreDelete = true;
  std::function<void(RecordingSettingObserver*)> whenPreDeleted;

 private:
  std::vector<std::string>* mJournal;
  std::string mLabel;
};

class RecordingGroupObserver : public SettingGroupObserver {
 public:
  RecordingGroupObserver(SettingGroup* group, std::vector<std::string>* journal,
                         std::string label)
      : SettingGroupObserver(group), mJournal(journal), mLabel(std::move(label)) {}

  void onChanged(const SettingGroupEvent& event) override {
    ++changed;
    lastGroup = event.group;
    lastSetting = event.setting;
    if (mJournal) mJournal->push_back(mLabel + ":changed");
  }
  void onPreDelete(const SettingGroupEvent& event) override {
    ++preDeleted;
    lastGroup = event.group;
    lastSetting = event.setting;
    if (mJournal) mJournal->push_back(mLabel + ":predelete");
  }

  int changed = 0;
  int preDeleted = 0;
  SettingGroup* lastGroup = nullptr;
  Setting* lastSetting = reinterpret_cast<Setting*>(1);  // "never told"

 private:
  std::vector<std::string>* mJournal;
  std::string mLabel;
};

// Names of the settings of `group`, in order.
inline std::vector<QString> memberNames(const SettingGroup& group) {
  std::vector<QString> names;
  for (int i = 0; i < group.getSettingCount(); ++i) names.push_back(group.getSetting(i)->getName());
  return names;
}

// Leaves sCurrentModifier and the restore frames as the test found them.
class SettingsTest : public ::testing::Test {
 protected:
  void SetUp() override {
    mModifier = Setting::sCurrentModifier;
    mFrames = Setting::sRestoreList.size();
  }
  void TearDown() override {
    Setting::sCurrentModifier = mModifier;
    EXPECT_EQ(Setting::sRestoreList.size(), mFrames) << "a test left a restore frame open";
    while (Setting::sRestoreList.size() > mFrames) Setting::popAllSettings();
  }

 private:
  void* mModifier = nullptr;
  qsizetype mFrames = 0;
};

}  // namespace kestrel::test

// Lets gtest print QStrings in failure messages.
QT_BEGIN_NAMESPACE
inline void PrintTo(const QString& text, std::ostream* out) {
  *out << (text.isNull() ? std::string("(null QString)") : '"' + text.toStdString() + '"');
}
QT_END_NAMESPACE
