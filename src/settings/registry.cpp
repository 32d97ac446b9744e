// The setting registry: the group list, the pending-setting list, observer
// lists and their notification, restore frames.
#include <kestrel/settings.h>

#include <stdexcept>

namespace kestrel {

namespace {

// Plain pointers and an int: constant-initialised, so settings and groups
// built during static initialisation in other files always see them.
SettingGroup* gGroupHead = nullptr;
int gGroupCount = 0;
Setting* gPendingHead = nullptr;
// Set at exit just before sRestoreList is destroyed. Static settings of other
// files may be destroyed (or set) after that, depending on the order their
// files were linked in; from then on no frame is read, opened or recorded.
bool gRestoreListGone = false;

}  // namespace

void* Setting::sCurrentModifier = nullptr;
// constinit: must be usable before any dynamic initialiser runs.
constinit QList<QList<Setting*>> Setting::sRestoreList;

namespace {

// Declared after sRestoreList, so destroyed just before it: marks the list
// gone. Frames still open at exit are dropped with it, without roll-back.
struct RestoreListEnd {
  constexpr RestoreListEnd() = default;
  ~RestoreListEnd() { gRestoreListGone = true; }
};
constinit RestoreListEnd gRestoreListEnd;

// True while at least one restore frame is open.
bool framesOpen() {
  return !gRestoreListGone && !Setting::sRestoreList.isEmpty();
}

}  // namespace

namespace detail {

// Push-front and unlink for the registry's intrusive doubly linked lists;
// `Next` and `Prev` name the node's two link members.
template <typename Node, Node* Node::*Next, Node* Node::*Prev>
struct IntrusiveList {
  static void pushFront(Node*& head, Node& node) {
    node.*Prev = nullptr;
    node.*Next = head;
    if (head) head->*Prev = &node;
    head = &node;
  }

  // Leaves the node with null links.
  static void unlink(Node*& head, Node& node) {
    if (node.*Prev) {
      node.*Prev->*Next = node.*Next;
    } else {
      head = node.*Next;
    }
    if (node.*Next) node.*Next->*Prev = node.*Prev;
    node.*Next = nullptr;
    node.*Prev = nullptr;
  }
};

struct RegistryAccess {
  using ObserverList = IntrusiveList<Observer, &Observer::mNext, &Observer::mPrev>;
  using GroupList = IntrusiveList<SettingGroup, &SettingGroup::mNext, &SettingGroup::mPrev>;
  using PendingList = IntrusiveList<Setting, &Setting::mPendingNext, &Setting::mPendingPrev>;

  static void attach(Observer& observer, Observer** head) {
    observer.mList = head;
    ObserverList::pushFront(*head, observer);
  }

  static void unlink(Observer& observer) {
    if (!observer.mList) return;
    ObserverList::unlink(*observer.mList, observer);
    observer.mList = nullptr;
  }

  // Detaches every observer of a dying subject without calling it.
  static void detachAll(Observer** head) {
    while (*head) unlink(**head);
  }

  // The one notification routine of both observer kinds. `next` is taken
  // before anything else so that the current observer may detach or destroy
  // itself inside its handler.
  template <typename ObserverType, typename Event>
  static void notify(Observer** head, void (ObserverType::*handler)(const Event&),
                     const Event& event, bool detachFirst) {
    Observer* current = *head;
    while (current) {
      Observer* next = current->mNext;
      if (detachFirst) unlink(*current);
      if (current->mEnabled) (static_cast<ObserverType*>(current)->*handler)(event);
      current = next;
    }
  }

  // True while the setting waits for its group's constructor to run.
  static bool isPending(const Setting& setting) {
    return gPendingHead == &setting || setting.mPendingPrev != nullptr;
  }

  static Observer** observersOf(Setting& setting) { return &setting.mObservers; }
  static Observer** observersOf(SettingGroup& group) { return &group.mObservers; }
};

}  // namespace detail

using detail::RegistryAccess;
using GroupList = RegistryAccess::GroupList;
using PendingList = RegistryAccess::PendingList;

// ---------------------------------------------------------------- observers

Observer::~Observer() {
  RegistryAccess::unlink(*this);
}

void Observer::detach() {
  RegistryAccess::unlink(*this);
}

SettingObserver::SettingObserver(Setting& setting) : SettingObserver(&setting) {}

SettingObserver::SettingObserver(Setting* setting) {
  if (setting) RegistryAccess::attach(*this, RegistryAccess::observersOf(*setting));
}

SettingObserver::~SettingObserver() = default;

SettingGroupObserver::SettingGroupObserver(SettingGroup& group) : SettingGroupObserver(&group) {}

SettingGroupObserver::SettingGroupObserver(SettingGroup* group) {
  if (group) RegistryAccess::attach(*this, RegistryAccess::observersOf(*group));
}

SettingGroupObserver::~SettingGroupObserver() = default;

// ----------------------------------------------------------------- settings

Setting::Setting(SettingGroup& group, const QString& name, bool firstFlag, bool secondFlag)
    : mName(name), mGroup(&group), mFirstFlag(firstFlag), mSecondFlag(secondFlag) {
  // Only the address of `group` is compared here: its constructor may not
  // have run yet.
  for (SettingGroup* g = gGroupHead; g; g = g->mNext) {
    if (g == &group) {
      group.mSettings.push_back(this);
      return;
    }
  }
  PendingList::pushFront(gPendingHead, *this);
}

Setting::~Setting() {
  if (RegistryAccess::isPending(*this)) {
    // Deliberate: a setting destroyed before its group was ever constructed
    // only leaves the pending list; the group never adopted it, so there is
    // nothing to remove from the group (whose storage may not even be a
    // constructed object).
    PendingList::unlink(gPendingHead, *this);
  } else if (mGroup) {
    std::vector<Setting*>& members = mGroup->mSettings;
    for (auto it = members.begin(); it != members.end(); ++it) {
      if (*it == this) {
        members.erase(it);
        break;
      }
    }
  }
  // Deliberate: a setting that dies while recorded in an open restore frame
  // leaves the frame, so that popAllSettings() never reaches a dead object.
  if (framesOpen()) {
    for (QList<Setting*>& frame : sRestoreList) frame.removeAll(this);
  }
  RegistryAccess::detachAll(&mObservers);
}

void Setting::notifyChanged() {
  RegistryAccess::notify(&mObservers, &SettingObserver::onChanged, SettingEvent{this}, false);
  // A pending setting's group has not been constructed yet: its observer
  // list is not an object to read (zero-filled static storage would read as
  // empty, any other storage as garbage), so nobody there is told.
  if (mGroup && !RegistryAccess::isPending(*this)) {
    RegistryAccess::notify(&mGroup->mObservers, &SettingGroupObserver::onChanged,
                           SettingGroupEvent{mGroup, this}, false);
  }
}

void Setting::notifyPreDelete() {
  RegistryAccess::notify(&mObservers, &SettingObserver::onPreDelete, SettingEvent{this}, true);
}

void Setting::recordChange() {
  if (!framesOpen()) return;
  sRestoreList.first().prepend(this);
  pushSetting();
}

Setting* Setting::findSetting(const QString& name) {
  // Goes through the virtual accessors, so groups that override them are
  // searched as they present themselves.
  for (SettingGroup* group = gGroupHead; group; group = group->mNext) {
    const int count = group->getSettingCount();
    for (int j = 0; j < count; ++j) {
      Setting* setting = group->getSetting(j);
      if (setting->getName() == name) return setting;
    }
  }
  return nullptr;
}

void Setting::pushAllSettings() {
  if (gRestoreListGone) return;
  sRestoreList.prepend(QList<Setting*>());
}

bool Setting::popAllSettings() {
  if (!framesOpen()) return false;
  // Off the list before the walk: a popSetting() of a client class that sets
  // another setting records that change in the enclosing frame (or nowhere,
  // when this was the last one), not in the frame being dropped.
  const QList<Setting*> frame = sRestoreList.takeFirst();
  for (Setting* setting : frame) setting->popSetting();
  return true;
}

// ------------------------------------------------------------------- groups

SettingGroup::SettingGroup(const QString& name) : mName(name) {
  GroupList::pushFront(gGroupHead, *this);
  ++gGroupCount;

  // Adopt the settings that were waiting for this group, in pending-list
  // order (newest first).
  Setting* setting = gPendingHead;
  while (setting) {
    Setting* next = setting->mPendingNext;
    if (setting->mGroup == this) {
      PendingList::unlink(gPendingHead, *setting);
      mSettings.push_back(setting);
    }
    setting = next;
  }
}

SettingGroup::~SettingGroup() {
  RegistryAccess::notify(&mObservers, &SettingGroupObserver::onPreDelete,
                         SettingGroupEvent{this, nullptr}, false);

  GroupList::unlink(gGroupHead, *this);
  --gGroupCount;

  for (Setting* setting : mSettings) setting->mGroup = nullptr;
  mSettings.clear();
  RegistryAccess::detachAll(&mObservers);
}

const QString& SettingGroup::getName() const {
  return mName;
}

int SettingGroup::getSettingCount() const {
  return static_cast<int>(mSettings.size());
}

Setting* SettingGroup::getSetting(int index) const {
  if (index < 0 || index >= getSettingCount()) {
    throw std::out_of_range("SettingGroup::getSetting: index out of range");
  }
  return mSettings[static_cast<std::size_t>(index)];
}

Setting* SettingGroup::getSetting(const QString& name) const {
  for (Setting* setting : mSettings) {
    if (setting->getName() == name) return setting;
  }
  return nullptr;
}

SettingGroup* SettingGroup::getGroup(const QString& name) {
  for (SettingGroup* group = gGroupHead; group; group = group->mNext) {
    if (group->getName() == name) return group;
  }
  return nullptr;
}

int SettingGroup::getGroupCount() {
  return gGroupCount;
}

SettingGroup* SettingGroup::getGroup(int index) {
  if (index < 0) return nullptr;
  SettingGroup* group = gGroupHead;
  for (; group && index > 0; --index) group = group->mNext;
  return group;
}

}  // namespace kestrel
