// Helpers of the system tests: a fake machine tree and scoped environment
// variables.
#pragma once

#include "env/machine.h"

#include <QByteArray>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QTemporaryDir>

#include <gtest/gtest.h>

#include "scoped_env.h"

#include <cstdlib>
#include <optional>
#include <string>

namespace kestrel::test {

// A temporary folder that stands for "/" of the machine facts while alive.
class FakeMachine {
 public:
  FakeMachine() { env_detail::setMachineRoot(mDir.path()); }
  ~FakeMachine() { env_detail::setMachineRoot(QString()); }
  FakeMachine(const FakeMachine&) = delete;
  FakeMachine& operator=(const FakeMachine&) = delete;

  // Writes text to <root><absolutePath>, creating the folders.
  void write(const QString& absolutePath, const QByteArray& text) const {
    const QString path = mDir.path() + absolutePath;
    ASSERT_TRUE(QDir().mkpath(QFileInfo(path).path()));
    QFile file(path);
    ASSERT_TRUE(file.open(QIODevice::WriteOnly | QIODevice::Truncate));
    ASSERT_EQ(file.write(text), text.size());
  }
  QString root() const { return mDir.path(); }

 private:
  QTemporaryDir mDir;
};

}  // namespace kestrel::test
