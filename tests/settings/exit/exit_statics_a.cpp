// First file of static settings of the exit programs.
#include "settings/exit/exit_statics.h"

namespace exit_test {

kestrel::SettingGroup gGroupA(QStringLiteral("exit.a"));
kestrel::IntSetting gValueA(gGroupA, QStringLiteral("valueA"), 0, false, false);
kestrel::IntSetting gWaitsForB(gGroupB, QStringLiteral("waitsForB"), 0, false, false);

namespace {

// Sets this file's settings and opens a frame while static objects are being
// destroyed, before or after the registry's own statics depending on the
// order the files were linked in.
struct SetsAtExit {
  ~SetsAtExit() {
    gValueA.set(40);
    gWaitsForB.set(41);
    kestrel::Setting::pushAllSettings();
    gValueA.set(42);
  }
} gSetsAtExit;

}  // namespace
}  // namespace exit_test
