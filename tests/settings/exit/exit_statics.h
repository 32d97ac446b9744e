// Static groups and settings of the exit programs, defined in two files. Each
// file's group has one setting of its own file and one of the other file, so
// that whichever file is initialised first leaves a setting pending.
#pragma once

#include <kestrel/settings.h>

namespace exit_test {

extern kestrel::SettingGroup gGroupA;
extern kestrel::IntSetting gValueA;     // in gGroupA
extern kestrel::IntSetting gWaitsForB;  // in gGroupB, defined with gGroupA

extern kestrel::SettingGroup gGroupB;
extern kestrel::IntSetting gValueB;     // in gGroupB
extern kestrel::IntSetting gWaitsForA;  // in gGroupA, defined with gGroupB

}  // namespace exit_test
