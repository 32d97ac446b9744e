// Second file of static settings of the exit programs.
#include "settings/exit/exit_statics.h"

namespace exit_test {

kestrel::SettingGroup gGroupB(QStringLiteral("exit.b"));
kestrel::IntSetting gValueB(gGroupB, QStringLiteral("valueB"), 0, false, false);
kestrel::IntSetting gWaitsForA(gGroupA, QStringLiteral("waitsForA"), 0, false, false);

}  // namespace exit_test
