// Settings: named, typed, observable values grouped in setting groups.
//
// Every tunable or observable value of the application (memory counters,
// start-up timings, version facts, user options) is a `Setting` that belongs
// to a `SettingGroup`. Groups register themselves in one process-wide list,
// so any code can find a group or a setting by name, enumerate all of them,
// watch them change through observers, and roll back every change made
// inside a scope with `Setting::pushAllSettings()` / `popAllSettings()`.
// Settings live in memory only; a client that wants persistence stores each
// setting's text form (`toString`) and reads it back with `fromString`. The
// query-string form `toLogString` serves usage reporting.
//
// Which type to use:
//   BoolSetting, IntSetting, FloatSetting, DoubleSetting, StringSetting,
//   QDateTimeSetting, IntPairSetting   a plain value of that type;
//   CountSetting                       an int that is left out of the log while 0;
//   HashedStringSetting                a string whose log form is the CRC-32 of its
//                                      initial value (for values that must not be
//                                      reported as text);
//   IntHistogram + IntHistogramSetting a distribution of int samples;
//   MapAndLog                          a bounded int -> int map whose entries are
//                                      IntPairSettings in a group;
//   TimeSetting                        a start and a stop on the application clock;
//                                      the start-up steps are in PerfInfo::perfOptions
//                                      (group "Performance"), reported by PerfInfo::output;
//   SettingObserver / SettingGroupObserver  to be told about changes.
//
// Settings and groups are usually objects with static storage, built during
// static initialisation in an unknown order, so a setting may be constructed
// before its group: it waits in a pending list and the group adopts it when
// the group is constructed.
//
// Example:
//
//   kestrel::SettingGroup display(QStringLiteral("Display"));
//   kestrel::IntSetting cacheSize(display, QStringLiteral("cacheSize"), 256, true, false);
//
//   kestrel::Setting::pushAllSettings();
//   cacheSize.fromString(QStringLiteral("512"));   // recorded in the open frame
//   cacheSize.toLogString();                       // "&cacheSize:i=512"
//   kestrel::Setting::popAllSettings();            // back to 256, nobody notified
//
// Thread-safety: nothing in this header is synchronised. Settings, groups,
// observers and restore frames belong to the application's main thread; a
// caller that touches them from another thread must bring its own lock.
#pragma once

#include <kestrel/export.h>

#include <QDateTime>
#include <QList>
#include <QString>

#include <map>
#include <memory>
#include <utility>
#include <vector>

namespace kestrel {

// The kind of a setting, returned by Setting::getType(). The values are
// stable and may be stored by clients.
enum SettingType {
  TypeBool = 0,           // BoolSetting
  TypeInt = 1,            // IntSetting
  TypeFloat = 2,          // FloatSetting
  TypeDouble = 3,         // DoubleSetting
  TypeString = 4,         // StringSetting
  TypeDateTime = 5,       // QDateTimeSetting
  TypeCount = 6,          // CountSetting
  TypeIntPair = 7,        // IntPairSetting
  TypeTime = 8,           // TimeSetting
  TypeHashedString = 9,   // HashedStringSetting
  TypeIntHistogram = 10,  // IntHistogramSetting
};

class Setting;
class SettingGroup;

namespace detail {
struct RegistryAccess;  // the registry's private link operations (registry.cpp)
}

// What a SettingObserver is told: the setting concerned.
struct SettingEvent {
  Setting* setting;
};

// What a SettingGroupObserver is told: the group and the setting concerned.
// `setting` is null in a group's pre-delete event.
struct SettingGroupEvent {
  SettingGroup* group;
  Setting* setting;
};

// Base of both observer kinds: an entry of its subject's intrusive observer
// list. Observers do not own their subjects and subjects do not own their
// observers; whichever is destroyed first unlinks the pair. Not copyable.
// Main thread only, unsynchronised.
class KESTREL_EXPORT Observer {
 public:
  Observer(const Observer&) = delete;
  Observer& operator=(const Observer&) = delete;
  // Detaches from the subject if still attached.
  virtual ~Observer();

  // A disabled observer stays linked but its handlers are not called.
  // True after construction.
  bool isEnabled() const { return mEnabled; }
  void setEnabled(bool enabled) { mEnabled = enabled; }

  // True while linked into a subject's list. False for an observer built on
  // a null subject, after detach(), and once its subject is gone.
  bool isAttached() const { return mList != nullptr; }

  // Unlinks from the subject; no-op when detached. An observer may detach
  // (or destroy) itself from inside its own handler, but not the observer
  // that follows it in the list.
  void detach();

 protected:
  Observer() = default;

 private:
  friend struct detail::RegistryAccess;
  Observer** mList = nullptr;  // address of the subject's list head
  Observer* mNext = nullptr;
  Observer* mPrev = nullptr;
  bool mEnabled = true;
};

// Watches one setting. Attaches at construction at the head of the setting's
// list, so the most recently attached observer is told first. Main thread
// only, unsynchronised.
class KESTREL_EXPORT SettingObserver : public Observer {
 public:
  explicit SettingObserver(Setting& setting);
  // A null setting leaves the observer detached for good.
  explicit SettingObserver(Setting* setting);
  ~SettingObserver() override;

  // The setting's value changed (typed set with a new value, fromString,
  // setVal, histogram samples, or an explicit notifyChanged()).
  virtual void onChanged(const SettingEvent& event) = 0;
  // The setting is being destroyed. The observer is already detached when
  // this runs, so it may delete itself here.
  virtual void onPreDelete(const SettingEvent& event) = 0;
};

// Watches one group: told after each change of any member setting (after the
// setting's own observers) and once when the group is destroyed. Main thread
// only, unsynchronised.
class KESTREL_EXPORT SettingGroupObserver : public Observer {
 public:
  explicit SettingGroupObserver(SettingGroup& group);
  // A null group leaves the observer detached for good.
  explicit SettingGroupObserver(SettingGroup* group);
  ~SettingGroupObserver() override;

  // A member setting changed: event.setting is that setting.
  virtual void onChanged(const SettingGroupEvent& event) = 0;
  // The group is being destroyed: event.setting is null. Unlike a setting's
  // pre-delete, the observer is still attached while this runs; it is
  // detached, without a further call, when the group finishes dying.
  virtual void onPreDelete(const SettingGroupEvent& event) = 0;
};

// Abstract base of every setting. A setting is pending (constructed before
// its group), a member of its group, or orphaned (its group was destroyed
// first; it then notifies only its own observers). Not copyable.
// Main thread only, unsynchronised.
class KESTREL_EXPORT Setting {
 public:
  Setting(const Setting&) = delete;
  Setting& operator=(const Setting&) = delete;
  // Leaves the group (or the pending list), drops out of any open restore
  // frame and detaches remaining observers without calling them. Concrete
  // classes call notifyPreDelete() first thing in their own destructor.
  virtual ~Setting();

  // Parses a text form and assigns it through the typed setter. Never fails:
  // unreadable input assigns that kind's fallback (0, false, ...).
  virtual void fromString(const QString& text) = 0;
  // The text form of the value, read back by fromString (not always exactly;
  // see StringSetting and QDateTimeSetting).
  virtual QString toString() const = 0;
  // Query-string fragments for usage reporting ("&name:i=42"); a null
  // QString when the setting logs nothing.
  virtual QString toLogString() const = 0;
  // The value as a number; 0.0 for kinds that have none.
  virtual double getVal() const = 0;
  // Assigns from a number; kinds without a numeric value only stamp the
  // modifier.
  virtual void setVal(double value) = 0;
  // The kind of this setting, for clients that handle kinds differently.
  virtual SettingType getType() const = 0;
  // Saves the current value on the setting's own value stack.
  virtual void pushSetting() = 0;
  // Restores the most recently saved value without notifying anyone; false
  // when the stack is empty.
  virtual bool popSetting() = 0;

  // Name, compared case-sensitively.
  const QString& getName() const { return mName; }
  // The owning group; null once the group has been destroyed. While the
  // setting is still pending this is the group that will adopt it.
  SettingGroup* getGroup() const { return mGroup; }
  // Copy of sCurrentModifier taken by the last typed set call (null after
  // construction).
  void* getModifier() const { return mModifier; }
  // The two flags given at construction, stored unchanged and never read by
  // this library. By convention the first says "include in the usage log"
  // (MapAndLog passes its log switch, start-up timings pass true); the
  // second is free for the client.
  bool getFirstFlag() const { return mFirstFlag; }
  bool getSecondFlag() const { return mSecondFlag; }

  // Tells the setting's observers (newest first), then its group's
  // observers, that the value changed. Called by every setter after a real
  // change; call it yourself to announce a roll-back by popAllSettings().
  // A setting still waiting for its group, or orphaned, tells only its own
  // observers.
  void notifyChanged();
  // Tells the setting's observers that it is about to be destroyed,
  // detaching each before its handler runs. Group observers are not told.
  void notifyPreDelete();

  // First setting named `name`, searching groups newest first and each
  // group's settings in order; null when none. Pending settings are not
  // found.
  static Setting* findSetting(const QString& name);
  // Opens a restore frame: until it is popped, every typed set that changes
  // a value records the setting and saves its old value. Frames nest; only
  // the innermost one records. Frames may be left open when the program
  // ends: at exit they are dropped without roll-back, whatever the order of
  // destruction of static settings; from then on this does nothing.
  static void pushAllSettings();
  // Closes the innermost frame, then rolls back every change recorded in it
  // (most recent first), silently. A popSetting() that sets other settings
  // while the frame rolls back is recorded in the enclosing frame. False,
  // and nothing happens, when no frame is open.
  static bool popAllSettings();

  // Who is making the following changes; an opaque word the client assigns.
  // Every typed set call copies it into the setting, even when the value
  // does not change. This library never writes it.
  static void* sCurrentModifier;
  // The open restore frames, innermost first; each frame lists the settings
  // changed in it, most recent first. Inspect only: open and close frames
  // with pushAllSettings()/popAllSettings(). Destroyed at exit.
  static QList<QList<Setting*>> sRestoreList;

 protected:
  // Joins `group` if it is already constructed, else waits in the pending
  // list until it is. `group` may refer to a group whose constructor has not
  // run yet (static initialisation order).
  Setting(SettingGroup& group, const QString& name, bool firstFlag, bool secondFlag);

  // The first steps of every typed setter: copy sCurrentModifier.
  void stampModifier() { mModifier = sCurrentModifier; }
  // When a restore frame is open: record this setting in the innermost frame
  // and save the old value (pushSetting()). Call before storing a new value.
  void recordChange();

 private:
  friend class SettingGroup;
  friend struct detail::RegistryAccess;
  void* mModifier = nullptr;
  Observer* mObservers = nullptr;
  QString mName;
  SettingGroup* mGroup;
  Setting* mPendingNext = nullptr;
  Setting* mPendingPrev = nullptr;
  bool mFirstFlag;
  bool mSecondFlag;
};

// A named collection of settings, registered in the process-wide group list
// from the end of its constructor to the start of its destructor. Does not
// own its settings: destroying the group leaves them alive and orphaned. Not
// copyable. Main thread only, unsynchronised.
class KESTREL_EXPORT SettingGroup {
 public:
  // Registers the group at the head of the group list and adopts the pending
  // settings that name it, in pending-list order (the reverse of their
  // construction order); settings built later are appended.
  explicit SettingGroup(const QString& name);
  SettingGroup(const SettingGroup&) = delete;
  SettingGroup& operator=(const SettingGroup&) = delete;
  // Tells the group observers (event.setting null), leaves the group list,
  // orphans the member settings and detaches the observers.
  virtual ~SettingGroup();

  // Name, compared case-sensitively.
  virtual const QString& getName() const;
  // Number of member settings (pending and orphaned ones are not members).
  virtual int getSettingCount() const;
  // Member at `index` in adoption order. Throws std::out_of_range when
  // `index` is negative or not below getSettingCount().
  virtual Setting* getSetting(int index) const;
  // First member named `name` (case-sensitive); null if none.
  virtual Setting* getSetting(const QString& name) const;

  // First group in list order (newest first) named `name`, so with two
  // groups of one name the newer wins; null if none.
  static SettingGroup* getGroup(const QString& name);
  // Number of constructed, not yet destroyed groups.
  static int getGroupCount();
  // Group at `index` in list order (0 is the newest); null when `index` is
  // negative or not below getGroupCount().
  static SettingGroup* getGroup(int index);

 private:
  friend class Setting;
  friend struct detail::RegistryAccess;
  Observer* mObservers = nullptr;
  std::vector<Setting*> mSettings;
  QString mName;
  SettingGroup* mNext = nullptr;
  SettingGroup* mPrev = nullptr;
};

// A setting that holds a value of type T and a stack of saved values.
// Instantiated in the library for bool, int, float, double, QString,
// QDateTime and std::pair<int, int> only. A class derived from it supplies
// toLogString() and getType() and calls notifyPreDelete() first thing in
// its destructor. Main thread only, unsynchronised.
template <typename T>
class KESTREL_EXPORT TypedSetting : public Setting {
 public:
  using ValueType = T;

  // Joins the group (see Setting) holding `initial`; notifies nobody.
  TypedSetting(SettingGroup& group, const QString& name, T initial, bool firstFlag,
               bool secondFlag);
  ~TypedSetting() override;

  // The current value.
  T get() const;
  // Stamps the modifier; when `value` differs (operator== of T) records the
  // change in the open restore frame, stores it and notifies observers. An
  // equal value is not recorded, pushed or notified.
  void set(T value);

  // bool: the trimmed, lower-cased text is "true" or "1" (anything else is
  // false). int: one decimal integer after optional white space and sign;
  // beyond the int range it saturates ("3000000000" reads 2147483647).
  // float, double: one real number. QString: the first word. pair: two
  // integers read the same way, a missing one reads 0.
  // QDateTime: Qt::TextDate ("Tue Jul 4 09:05:00 2006"). Unreadable numbers
  // read 0, an unreadable date-time is the null QDateTime.
  void fromString(const QString& text) override;
  // bool "1"/"0"; int decimal; float, double exactly as printf("%g") in the
  // C locale ("0.1", "1.23457e+06", 12345.25 gives "12345.2", -0.0 gives
  // "-0"); QString as is; pair "640 480"; QDateTime
  // "2006-7-4__9-5-0" (fields of a null date or time print as 0).
  QString toString() const override;
  // bool 1.0/0.0; int, float, double the value; other kinds 0.0.
  double getVal() const override;
  // bool: value != 0; int: truncated toward zero, saturating at the int
  // limits (NaN gives 0); float: narrowed; double: as is; other kinds keep
  // their value and only stamp the modifier.
  void setVal(double value) override;
  // Saves a copy of the value on the stack.
  void pushSetting() override;
  // Takes the most recent saved value back, silently; false when none.
  bool popSetting() override;

 private:
  T mValue;
  QList<T> mStack;  // saved values, most recent first
};

extern template class TypedSetting<bool>;
extern template class TypedSetting<int>;
extern template class TypedSetting<float>;
extern template class TypedSetting<double>;
extern template class TypedSetting<QString>;
extern template class TypedSetting<QDateTime>;
extern template class TypedSetting<std::pair<int, int>>;

// A boolean. Logs "&name:b=t" when true and nothing (null) when false.
class KESTREL_EXPORT BoolSetting : public TypedSetting<bool> {
 public:
  BoolSetting(SettingGroup& group, const QString& name, bool initial, bool firstFlag,
              bool secondFlag);
  ~BoolSetting() override;
  QString toLogString() const override;
  SettingType getType() const override;  // TypeBool
};

// A signed 32-bit integer. Always logs "&name:i=<value>".
class KESTREL_EXPORT IntSetting : public TypedSetting<int> {
 public:
  IntSetting(SettingGroup& group, const QString& name, int initial, bool firstFlag,
             bool secondFlag);
  ~IntSetting() override;
  QString toLogString() const override;
  SettingType getType() const override;  // TypeInt
};

// An integer count. Logs "&name:c=<value>", nothing (null) while 0.
class KESTREL_EXPORT CountSetting : public IntSetting {
 public:
  CountSetting(SettingGroup& group, const QString& name, int initial, bool firstFlag,
               bool secondFlag);
  ~CountSetting() override;
  QString toLogString() const override;
  SettingType getType() const override;  // TypeCount
};

// A float. Logs "&name:i=<value truncated toward zero>" (saturating).
class KESTREL_EXPORT FloatSetting : public TypedSetting<float> {
 public:
  FloatSetting(SettingGroup& group, const QString& name, float initial, bool firstFlag,
               bool secondFlag);
  ~FloatSetting() override;
  QString toLogString() const override;
  SettingType getType() const override;  // TypeFloat
};

// A double. Logs "&name:i=<value truncated toward zero>" (saturating).
class KESTREL_EXPORT DoubleSetting : public TypedSetting<double> {
 public:
  DoubleSetting(SettingGroup& group, const QString& name, double initial, bool firstFlag,
                bool secondFlag);
  ~DoubleSetting() override;
  QString toLogString() const override;
  SettingType getType() const override;  // TypeDouble
};

// A string. Never logged (toLogString() is null). fromString keeps only the
// first word, so a value with white space does not survive toString() then
// fromString().
class KESTREL_EXPORT StringSetting : public TypedSetting<QString> {
 public:
  StringSetting(SettingGroup& group, const QString& name, const QString& initial, bool firstFlag,
                bool secondFlag);
  ~StringSetting() override;
  QString toLogString() const override;
  SettingType getType() const override;  // TypeString
};

// A string logged as a hash: "&name:i=<hash as signed 32-bit decimal>". The
// hash is the CRC-32 of the UTF-8 bytes of the initial value, computed once
// in the constructor; later changes of the string leave it unchanged.
class KESTREL_EXPORT HashedStringSetting : public StringSetting {
 public:
  HashedStringSetting(SettingGroup& group, const QString& name, const QString& initial,
                      bool firstFlag, bool secondFlag);
  ~HashedStringSetting() override;
  QString toLogString() const override;
  SettingType getType() const override;  // TypeHashedString
  // The hash of the initial value.
  quint32 getHash() const { return mHash; }

 private:
  quint32 mHash;
};

// A date-time. toString() gives "2006-7-4__9-5-0" but fromString() reads
// Qt::TextDate, so the value does not survive the pair of calls. Logs six
// entries "&DateTime-<name>-yy:i=2006&DateTime-<name>-mo:i=7" ... "-dd",
// "-hh", "-mi", "-ss".
class KESTREL_EXPORT QDateTimeSetting : public TypedSetting<QDateTime> {
 public:
  QDateTimeSetting(SettingGroup& group, const QString& name, const QDateTime& initial,
                   bool firstFlag, bool secondFlag);
  ~QDateTimeSetting() override;
  QString toLogString() const override;
  SettingType getType() const override;  // TypeDateTime
};

// A pair of ints, text form "640 480". Logs
// "&name[0]:i=<first>&name[1]:i=<second>".
class KESTREL_EXPORT IntPairSetting : public TypedSetting<std::pair<int, int>> {
 public:
  IntPairSetting(SettingGroup& group, const QString& name, std::pair<int, int> initial,
                 bool firstFlag, bool secondFlag);
  ~IntPairSetting() override;
  QString toLogString() const override;
  SettingType getType() const override;  // TypeIntPair
};

// A start and a stop time in whole milliseconds of the application clock
// (System::getTime() times 1000, truncated), as an int pair with the text
// and log forms of IntPairSetting. Each clock operation goes through the
// typed set(): the modifier is stamped, and a changed pair is recorded in
// the open restore frame and notified.
class KESTREL_EXPORT TimeSetting : public IntPairSetting {
 public:
  TimeSetting(SettingGroup& group, const QString& name, std::pair<int, int> initial, bool firstFlag,
              bool secondFlag);
  ~TimeSetting() override;
  SettingType getType() const override;  // TypeTime

  // (now, 0).
  void start();
  // (current start, now); (0, now) after no start.
  void stop();
  // (now, now): a moment.
  void now();
};

// Counts int samples into equal-width bins between a minimum and a maximum
// value, plus an overflow and an underflow slot, and keeps the smallest,
// largest and running average sample. The bins are shared: a copy of a
// histogram counts into the same bins (its summary values are its own).
// Main thread only, unsynchronised (sharing the bins is safe to copy and
// destroy across threads, counting into them is not).
class KESTREL_EXPORT IntHistogram {
 public:
  // No bins: addIntSample() does nothing; the value and bin getters read 0.
  IntHistogram();
  // `binCount` bins of width (maxValue - minValue) / binCount (integer
  // division). Samples at or above maxValue go to the overflow slot, below
  // minValue to the underflow slot; because the width is truncated, samples
  // from minValue + binCount * width to maxValue - 1 go to the overflow slot
  // too. A bin count of 0 or less gives a histogram that ignores samples.
  // A bin count larger than maxValue - minValue (width 0) is not meant to be
  // built; its in-range samples land in the overflow slot.
  IntHistogram(int minValue, int maxValue, int binCount);
  IntHistogram(const IntHistogram&);
  IntHistogram& operator=(const IntHistogram&);
  ~IntHistogram();

  // The range and number of bins given at construction; all 0 for a
  // default-constructed histogram, and a bin count below 1 reads 0.
  int getMinValue() const;
  int getMaxValue() const;
  int getBinCount() const;
  // Smallest / largest sample seen; -1 before any sample.
  int getMinSample() const { return mMinSample; }
  int getMaxSample() const { return mMaxSample; }
  // Running mean in single precision; -1.0 before any sample.
  float getAvgSample() const { return mAvgSample; }
  unsigned int getNumSamples() const { return mNumSamples; }

  // Count of bin `bin`; getBinCount() is the overflow slot and
  // getBinCount() + 1 the underflow slot. Any other index reads 0.
  int getSampleCount(int bin) const;
  int getOverflowSampleCount() const;
  int getUnderflowSampleCount() const;

  // Counts `value` into its bin and updates the minimum, maximum, average
  // and number of samples. Does nothing when the histogram has no bins.
  void addIntSample(int value);
  // Lowers the minimum sample to `value` (or sets it when there are no
  // samples yet); bins, average and number of samples are untouched.
  void updateMinSample(int value);
  // Raises the maximum sample likewise.
  void updateMaxSample(int value);

 private:
  struct Bins;  // count list (bins, overflow, underflow), min, max, width
  std::shared_ptr<Bins> mBins;
  int mMinSample = -1;
  int mMaxSample = -1;
  float mAvgSample = -1.0f;
  unsigned int mNumSamples = 0;
};

// Exposes an IntHistogram (not owned; it must outlive the setting) as a
// setting so it can be found, observed and logged. Has no text value:
// fromString and setVal do nothing, getVal is 0.0, push/pop keep nothing
// and restore frames never record it. Main thread only, unsynchronised.
class KESTREL_EXPORT IntHistogramSetting : public Setting {
 public:
  // Joins `group` like any setting (see Setting); notifies nobody.
  IntHistogramSetting(SettingGroup& group, const QString& name, IntHistogram& histogram,
                      bool firstFlag, bool secondFlag);
  ~IntHistogramSetting() override;

  // Each stamps the modifier, forwards to the histogram and then notifies
  // like notifyChanged(), every time, even when nothing changed.
  void addIntSample(int value);
  void updateMinSample(int value);
  void updateMaxSample(int value);
  // The histogram given at construction.
  const IntHistogram& getHistogram() const { return *mHistogram; }

  void fromString(const QString& text) override;
  // "<min sample> <max sample> <average>", e.g. "2 4 3"; the average as
  // printf("%g") writes it.
  QString toString() const override;
  // "&name-minv:i=..&name-maxv:i=..&name-bins:i=..&name-mins:i=..
  // &name-maxs:i=..&name-avgs:i=.." (average truncated toward zero) followed
  // by "&name-<i>:i=<count>" for every bin i whose count is not zero.
  // Overflow and underflow are not logged.
  QString toLogString() const override;
  double getVal() const override;
  void setVal(double value) override;
  SettingType getType() const override;  // TypeIntHistogram
  void pushSetting() override;
  bool popSetting() override;

 private:
  IntHistogram* mHistogram;
};

// A bounded map from int keys to int values whose entries are IntPairSettings
// (key, value) in a group, named "<name>-<n>" with n the number of entries
// when the entry was created (0, 1, 2, ... in creation order). Owns its entry
// settings. Not copyable. Main thread only, unsynchronised.
class KESTREL_EXPORT MapAndLog {
 public:
  // Entries will join `group`, which must outlive every addEntry call.
  MapAndLog(const QString& name, int maxEntries, SettingGroup& group, bool logEnabled);
  MapAndLog(const MapAndLog&) = delete;
  MapAndLog& operator=(const MapAndLog&) = delete;
  // Deletes every entry setting reachable through the map.
  ~MapAndLog();

  // Creates an entry setting for (key, value) unless the map already holds
  // maxEntries entries (then the key is silently dropped). Notifies nobody.
  // For a key already present the new setting takes the key's map slot and
  // the old setting stays in the group, no longer owned: the caller must
  // delete it (or not call addEntry for a present key).
  void addEntry(int key, int value);
  // Sets the key's entry to (key, value) through the typed setter, or adds it.
  void set(int key, int value);
  // Adds one to the key's value through the typed setter, or adds (key, 1).
  void incrementValue(int key);
  // Stores the key's value in `value` and returns true; false (and `value`
  // untouched) when the key is absent.
  bool get(int key, int& value) const;
  // True when `key` has an entry.
  bool hasKey(int key) const;
  // First flag of entry settings created from now on.
  void setLogEnabled(bool enabled) { mLogEnabled = enabled; }
  bool isLogEnabled() const { return mLogEnabled; }
  // Number of keys in the map.
  int getEntryCount() const { return static_cast<int>(mEntries.size()); }
  // The entries' name prefix and the capacity given at construction.
  const QString& getName() const { return mName; }
  int getMaxEntries() const { return mMaxEntries; }

 private:
  std::map<int, IntPairSetting*> mEntries;
  QString mName;
  int mMaxEntries;
  SettingGroup* mGroup;
  bool mLogEnabled;
};

// ---------------------------------------------------------------------------
// Performance options: start-up timings
// ---------------------------------------------------------------------------

// The group "Performance": the start-up steps of the application as time
// settings, each (0, 0) at first, logged, in this order. "timeAt..." names a
// moment (set with now()), "timeFor..." a duration (start() then stop()).
// The one instance is PerfInfo::perfOptions. Main thread only.
class KESTREL_EXPORT PerfOptions : public SettingGroup {
 public:
  PerfOptions();
  ~PerfOptions() override;

  TimeSetting timeAtAppStart;
  TimeSetting timeAtSpawnGfxCardInfo;
  TimeSetting timeAtSpawnAsyncAuth;
  TimeSetting timeAtSpawnAsyncDoLogin;
  TimeSetting timeAtExec;
  TimeSetting timeAtFirstLevel;
  TimeSetting timeAtLoggedIn;
  TimeSetting timeForGfxCardInfoInit;
  TimeSetting timeForGfxCardInfoCall;
  TimeSetting timeForSetupGfx;
  TimeSetting timeForInitAlchemy;
  TimeSetting timeForSetRenderApi;
  TimeSetting timeForSetupApp;
  TimeSetting timeForSetupQtLocale;
  TimeSetting timeForSetupSplash;
  TimeSetting timeForVerifyUserPaths;
  TimeSetting timeForSetupMainWin;
  TimeSetting timeForGuiContextInit;
  TimeSetting timeForOpenWorkspace;
  TimeSetting timeForReadScreen;
  TimeSetting timeForRenderContextInit;
  TimeSetting timeForAuth;
  TimeSetting timeForCookie;
  TimeSetting timeForLogin;
  TimeSetting timeForFetchDbRoot;
  TimeSetting timeForParseDbRoot;
  TimeSetting timeForFinishLogin;
  TimeSetting timeForMainDbStartup;
  TimeSetting timeForStyleManager;
  TimeSetting timeForOnLoggedInLayer;
};

// The start-up report.
class KESTREL_EXPORT PerfInfo {
 public:
  // The process's "Performance" group, built during static initialisation.
  static PerfOptions perfOptions;

  // Writes, truncating the file at `path` (taken as Latin-1), one line per
  // time setting of the newest group named "Performance", in group order:
  // "<name> <start> <stop>\n", for example "timeForSetupApp 1043 1187".
  // Settings of other kinds are left out. A file that cannot be opened gets
  // nothing and nothing is reported.
  static void output(const QString& path);
};

}  // namespace kestrel
