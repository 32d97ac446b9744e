// Runs a family's tests with the user's configuration folders inside a
// temporary folder, set before anything opens a settings store (a store
// keeps the folder it saw first); fixtures may point stores elsewhere.
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
