// Status subsystems, their registry and the functions that render status words.
#include <kestrel/status.h>
#include <kestrel/threads.h>

#include <QObject>

#include <array>
#include <atomic>

namespace kestrel {

namespace {

// Created with the first subsystem, never freed. Changed and searched only
// under the global lock; the pointer itself is atomic so that a lookup may
// test for its existence before taking the lock.
std::atomic<StatusSubsysTable*> gRegistry{nullptr};

// Requested size of the registry: 15, which gives 53 buckets.
constexpr unsigned int kRegistrySize = 15;

const QString& severityName(unsigned int status) {
  static const std::array<QString, 4> names = {QObject::tr("No Error"), QObject::tr("Info"),
                                               QObject::tr("Warning"), QObject::tr("Error")};
  return names[StatusGetSeverity(status)];
}

const QString& invalidName() {
  static const QString invalid = QObject::tr("Invalid");
  return invalid;
}

// The subsystem registered for the status's number, or null. The object is
// used after the lock is released: subsystems are not destroyed while others
// may look at them.
StatusSubsys* lookup(unsigned int status) {
  StatusSubsysTable* table = gRegistry.load(std::memory_order_acquire);
  if (!table) return nullptr;
  GlobalLock::lock();
  StatusSubsys* subsys = table->find(StatusGetSubsys(status));
  GlobalLock::unlock();
  return subsys;
}

void registerSubsys(StatusSubsys* subsys) {
  GlobalLock::lock();
  StatusSubsysTable* table = gRegistry.load(std::memory_order_relaxed);
  if (!table) {
    table = new StatusSubsysTable(kRegistrySize);
    gRegistry.store(table, std::memory_order_release);
  }
  table->insert(subsys);
  GlobalLock::unlock();
}

void unregisterSubsys(StatusSubsys* subsys) {
  GlobalLock::lock();
  if (StatusSubsysTable* table = gRegistry.load(std::memory_order_relaxed)) table->remove(subsys);
  GlobalLock::unlock();
}

}  // namespace

StatusSubsys::StatusSubsys(unsigned short number, const QString& name)
    : m_number(number), m_name(name.isEmpty() ? QStringLiteral("Unknown (%1)").arg(number) : name) {
  registerSubsys(this);
}

StatusSubsys::~StatusSubsys() {
  unregisterSubsys(this);
}

QString StatusSubsys::gString(unsigned int status) {
  // One arg() after another, each filling the lowest placeholder left, so
  // %3 takes the message and %4 the decimal code. No hexadecimal argument:
  // it would find no placeholder.
  return QObject::tr("%1|%2|Error code %3 (0x%4)")
      .arg(getSeverityString(status))
      .arg(m_name)
      .arg(getErrorString(status))
      .arg(StatusGetCode(status), 5);
}

const QString& StatusSubsys::getSeverityString(unsigned int status) const {
  return severityName(status);
}

QString StatusGetErrorString(unsigned int status) {
  StatusSubsys* subsys = lookup(status);
  return subsys ? subsys->getErrorString(status) : QString();
}

QString StatusGetPrintable(unsigned int status) {
  StatusSubsys* subsys = lookup(status);
  return subsys ? subsys->gString(status)
                : QStringLiteral("Could not decode error 0x%1").arg(status, 0, 16);
}

const QString& StatusGetSubsysName(unsigned int status) {
  StatusSubsys* subsys = lookup(status);
  return subsys ? subsys->getName() : invalidName();
}

const QString& StatusGetSeverityString(unsigned int status) {
  StatusSubsys* subsys = lookup(status);
  return subsys ? subsys->getSeverityString(status) : severityName(status);
}

}  // namespace kestrel
