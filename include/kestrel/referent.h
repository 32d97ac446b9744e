// kestrel::Referent — the library's intrusively reference-counted base, and
// kestrel::Ref, the counted reference that holds one.
//
// An object that derives from Referent carries its own count, which starts
// at 0. Each Ref that points at it adds one; when the last Ref lets go the
// object deletes itself through its virtual destructor. Use it for values
// that several owners share and that must outlive any one of them.
//
//   kestrel::Ref<kestrel::LanguageCode> code(new kestrel::LanguageCode("en_US"));
//   kestrel::Ref<kestrel::LanguageCode> other = code;  // count 2
//   code = nullptr;                                    // count 1
//
// Counting is not atomic: a shared object stays on one thread, or its owners
// synchronise among themselves.
#pragma once

#include <kestrel/export.h>

namespace kestrel {

class KESTREL_EXPORT Referent {
 public:
  Referent() = default;
  // A copy is a new object: its count starts at 0 again.
  Referent(const Referent&) : mCount(0) {}
  // Assignment keeps the count of the object assigned to.
  Referent& operator=(const Referent&) { return *this; }
  virtual ~Referent();

  // Adds one to the count.
  void ref() const { ++mCount; }
  // Takes one from the count; at 0 the object deletes itself.
  void unref() const;
  // The current count.
  int refCount() const { return mCount; }

 private:
  mutable int mCount = 0;
};

// A counted reference to a T derived from Referent; null by default.
template <typename T>
class Ref {
 public:
  Ref() = default;
  Ref(decltype(nullptr)) {}
  explicit Ref(T* object) : mObject(object) {
    if (mObject) mObject->ref();
  }
  Ref(const Ref& other) : Ref(other.mObject) {}
  Ref& operator=(const Ref& other) {
    Ref copy(other);
    swap(copy);
    return *this;
  }
  ~Ref() {
    if (mObject) mObject->unref();
  }

  T* get() const { return mObject; }
  T* operator->() const { return mObject; }
  T& operator*() const { return *mObject; }
  explicit operator bool() const { return mObject != nullptr; }

 private:
  void swap(Ref& other) {
    T* object = mObject;
    mObject = other.mObject;
    other.mObject = object;
  }
  T* mObject = nullptr;
};

}  // namespace kestrel
