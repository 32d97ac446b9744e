// Private: the seams and parsers behind the machine facts of System.
//
// Every fact read from /proc or /sys goes through machinePath(), so tests can
// point the library at a fake tree with setMachineRoot(). The parsers are
// exposed so that tests can feed them tables of text.
#pragma once

#include <kestrel/export.h>
#include <kestrel/system.h>

#include <QByteArray>
#include <QString>

namespace kestrel::env_detail {

// Folder prefixed to every /proc and /sys path; empty (the default) reads the
// real machine. With a root set, the kernel release is read from
// <root>/proc/sys/kernel/osrelease instead of uname(). Not thread-safe: set
// it before the facts are read.
KESTREL_EXPORT void setMachineRoot(const QString& root);
KESTREL_EXPORT QString machineRoot();

// Whole contents of <root><absolutePath>; false if it cannot be read.
bool readMachineFile(const char* absolutePath, QByteArray& contents);

// The numbers of a kernel release text, in order, each the leading digits of
// a part split on '.' and '-' ("6.1.0-18-amd64" -> 6, 1, 0, 18); parts
// that are missing or do not start with a digit read as 0.
KESTREL_EXPORT void parseKernelRelease(const QByteArray& release, int& major, int& minor,
                                       int& build, int& patch);

// The processor code of an x86 processor of the given CPUID family.
KESTREL_EXPORT unsigned int processorTypeForX86Family(int family);

// The value of "key:" in a /proc/meminfo or "key value" in a /proc/vmstat
// text (the first number after the key); -1 if the key is missing.
KESTREL_EXPORT long long tableValue(const QByteArray& table, const QByteArray& key);

// The largest "cpu MHz" of a /proc/cpuinfo text, in hertz; 0 if none.
KESTREL_EXPORT double largestCpuMHzInHertz(const QByteArray& cpuinfo);

// bytes saturated at 2147483647 (negative counts as that), then in MB.
KESTREL_EXPORT int saturatedMegabytes(long long bytes);

// Name and suffix of a family with its numbers, as getOSVersionString().
KESTREL_EXPORT QString osVersionString(System::OSVersion os, int major, int minor, int build,
                                       int patch);

// The clock that updateGlobalDT() reads (null: System::getTime), and a reset
// of the frame state to that of a fresh process. Tests only; main thread.
KESTREL_EXPORT void setFrameClock(double (*clock)());
KESTREL_EXPORT void resetFrameState();

// Fixes the zero of the application clock at this moment.
void startApplicationClock();

}  // namespace kestrel::env_detail
