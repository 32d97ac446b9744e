// Runs the version tests with the user's folders inside a temporary folder,
// set before anything opens a settings store; each fixture then points the
// stores at folders of its own.
#include <QTemporaryDir>

#include <gtest/gtest.h>

#include <cstdlib>

int main(int argc, char** argv) {
  QTemporaryDir home;
  if (!home.isValid()) return 1;
  ::setenv("HOME", home.path().toUtf8().constData(), 1);
  ::setenv("XDG_CONFIG_HOME", (home.path() + "/config").toUtf8().constData(), 1);
  ::testing::InitGoogleTest(&argc, argv);
  return RUN_ALL_TESTS();
}
