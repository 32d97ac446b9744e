// Helpers of the process tests: scoped environment variables and the record
// the argv recorder writes.
#pragma once

#include <QFile>
#include <QList>
#include <QTemporaryDir>

#include <gtest/gtest.h>

#include "scoped_env.h"

#include <chrono>
#include <cstdlib>
#include <optional>
#include <string>
#include <thread>

namespace kestrel::test {

// A record file in a temporary folder that the recorder child writes.
class Recording {
 public:
  Recording()
      : mEnv("KESTREL_RECORD_FILE", (mDir.path() + QStringLiteral("/argv")).toStdString()) {}

  // The argv the child wrote, waiting at most five seconds for it; nullopt
  // if it never came.
  std::optional<QList<QByteArray>> argv() const {
    QFile file(mDir.path() + QStringLiteral("/argv"));
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(5);
    while (!file.exists()) {
      if (std::chrono::steady_clock::now() > deadline) return std::nullopt;
      std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    if (!file.open(QIODevice::ReadOnly)) return std::nullopt;
    QByteArray all = file.readAll();
    if (all.endsWith('\0')) all.chop(1);
    return all.split('\0');
  }

 private:
  QTemporaryDir mDir;
  ScopedEnv mEnv;
};

}  // namespace kestrel::test
