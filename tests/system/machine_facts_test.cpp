// OS identity, processor and memory facts: parsers from tables, fake /proc
// and /sys trees, and the real machine.
#include "system/system_test_support.h"

#include <kestrel/system.h>

#include <sys/utsname.h>
#include <unistd.h>

#include <climits>
#include <fstream>
#include <string>

namespace kestrel {
namespace {

using env_detail::parseKernelRelease;
using test::FakeMachine;

TEST(OSNames, EveryFamilyHasItsNameAndOthersAreUnknown) {
  // Indexed by family, 0 .. 12; then families out of range.
  const char* const names[] = {"UNKNOWN",
                               "Microsoft Win32s",
                               "Microsoft Windows 95",
                               "Windows 98",
                               "Windows ME",
                               "Microsoft Windows NT",
                               "Microsoft Windows 2000",
                               "Microsoft Windows XP",
                               "Microsoft Windows Server",
                               "Microsoft Windows Vista",
                               "Mac OS X",
                               "Linux",
                               "Playstation 3"};
  const auto name = [](int family) {
    auto os = static_cast<System::OSVersion>(family);
    return System::getOSName(os);
  };
  for (int family = 0; family < 13; ++family)
    EXPECT_EQ(name(family), QString::fromLatin1(names[family])) << family;
  for (const int family : {13, -1, 1000}) EXPECT_EQ(name(family), QStringLiteral("UNKNOWN"));
}

TEST(OSNames, VersionStringSuffixDependsOnFamily) {
  const struct {
    System::OSVersion os;
    int major, minor, build, patch;
    const char* text;
  } rows[] = {
      {System::OS_MACOSX, 10, 4, 11, 7, "Mac OS X (10.4.11)"},
      {System::OS_LINUX, 6, 1, 0, 18, "Linux (6.1.0.18)"},
      {System::OS_WINXP, 5, 1, 2600, 2, "Microsoft Windows XP (Service Pack 2)"},
      {System::OS_UNKNOWN, 1, 2, 3, 4, "UNKNOWN (Service Pack 4)"},
  };
  for (const auto& row : rows)
    EXPECT_EQ(env_detail::osVersionString(row.os, row.major, row.minor, row.build, row.patch),
              QString::fromLatin1(row.text));
}

TEST(KernelRelease, NumbersAreTakenFromDotAndDashParts) {
  const struct {
    const char* release;
    int major, minor, build, patch;
  } rows[] = {
      {"6.1.0-18-amd64", 6, 1, 0, 18},
      {"5.15.0-91-generic\n", 5, 15, 0, 91},
      {"4.19.112+", 4, 19, 112, 0},
      {"6.8.0", 6, 8, 0, 0},
      {"3", 3, 0, 0, 0},
      {"", 0, 0, 0, 0},
      {"garbage", 0, 0, 0, 0},
      {"6.x.2-rc1", 6, 0, 2, 0},
      {"99999999999.1", INT_MAX, 1, 0, 0},
  };
  for (const auto& row : rows) {
    int major = -1, minor = -1, build = -1, patch = -1;
    parseKernelRelease(row.release, major, minor, build, patch);
    EXPECT_EQ(major, row.major) << row.release;
    EXPECT_EQ(minor, row.minor) << row.release;
    EXPECT_EQ(build, row.build) << row.release;
    EXPECT_EQ(patch, row.patch) << row.release;
  }
}

TEST(Processor, X86FamilyMapsToTheProcessorCode) {
  const int rows[][2] = {{0, 3}, {3, 3}, {4, 4}, {5, 5}, {6, 6}, {15, 6}, {25, 6}, {-1, 3}};
  for (const auto& row : rows)
    EXPECT_EQ(env_detail::processorTypeForX86Family(row[0]), static_cast<unsigned>(row[1]))
        << row[0];
}

TEST(Tables, ValueOfAKeyIsTheFirstNumberAfterIt) {
  const QByteArray meminfo =
      "MemTotal:       16384000 kB\nMemFree:  100 kB\nMemAvailable:    8192000 kB\n"
      "Mlocked:              0 kB\n";
  const QByteArray vmstat = "pswpin 12\npswpout0 9\npswpout 345\n";  // a longer key first
  EXPECT_EQ(env_detail::tableValue(meminfo, "MemTotal"), 16384000);
  EXPECT_EQ(env_detail::tableValue(meminfo, "MemAvailable"), 8192000);
  EXPECT_EQ(env_detail::tableValue(meminfo, "Mlocked"), 0);
  EXPECT_EQ(env_detail::tableValue(meminfo, "Mem"), -1) << "a key is matched whole";
  EXPECT_EQ(env_detail::tableValue(meminfo, "SwapTotal"), -1);
  EXPECT_EQ(env_detail::tableValue(vmstat, "pswpout"), 345);
  EXPECT_EQ(env_detail::tableValue("MemTotal: lots kB\n", "MemTotal"), -1);
  EXPECT_EQ(env_detail::tableValue("MemTotal: -5 kB\n", "MemTotal"), -1);
}

TEST(Tables, SaturatedMegabytesStopAt2047) {
  EXPECT_EQ(env_detail::saturatedMegabytes(0), 0);
  EXPECT_EQ(env_detail::saturatedMegabytes((1LL << 20) - 1), 0);
  EXPECT_EQ(env_detail::saturatedMegabytes(1LL << 20), 1);
  EXPECT_EQ(env_detail::saturatedMegabytes(INT_MAX), 2047);
  EXPECT_EQ(env_detail::saturatedMegabytes(1LL << 40), 2047) << "saturates, never wraps";
  EXPECT_EQ(env_detail::saturatedMegabytes(-1), 2047) << "a negative field counts as the maximum";
}

TEST(FakeMachineTree, OSVersionComesFromTheKernelRelease) {
  FakeMachine machine;
  machine.write("/proc/sys/kernel/osrelease", "6.1.0-18-amd64\n");
  System::OSVersion os = System::OS_UNKNOWN;
  int major, minor, build, patch;
  System::getOSVersion(os, major, minor, build, patch);
  EXPECT_EQ(os, System::OS_LINUX);
  EXPECT_EQ(System::getOSVersion(), System::OS_LINUX);
  EXPECT_EQ(System::getOSVersionString(), QStringLiteral("Linux (6.1.0.18)"));
}

TEST(FakeMachineTree, MemoryFactsFromMeminfoAndVmstat) {
  FakeMachine machine;
  machine.write("/proc/meminfo",
                "MemTotal:        3145728 kB\n"  // 3072 MB
                "MemFree:          100000 kB\n"
                "MemAvailable:    1048576 kB\n"  // 1024 MB
                "Unevictable:        2048 kB\n"
                "Mlocked:            1024 kB\n");
  const long page = ::sysconf(_SC_PAGESIZE);
  machine.write("/proc/vmstat",
                QByteArray("pgpgin 5\npswpout ") + QByteArray::number((5LL << 20) / page) + "\n");
  int a = -1, b = -1;
  System::getTotalMemoryMB(a, b);
  EXPECT_EQ(a, 3072);
  EXPECT_EQ(b, 4 * 3072) << "the second figure is four times the total";
  System::getAvailableMemoryMB(a, b);
  EXPECT_EQ(a, 1024);
  EXPECT_EQ(b, 2047);
  System::getUsedMemoryMB(a, b);
  EXPECT_EQ(a, 3) << "Mlocked + Unevictable";
  EXPECT_EQ(b, 5);
}

// Figures beyond what the byte count can hold (the kilobytes of the table
// times 1024, or megahertz times a million) saturate instead of overflowing.
TEST(FakeMachineTree, AbsurdFiguresSaturateWithoutOverflow) {
  FakeMachine machine;
  machine.write("/proc/meminfo",
                "MemTotal:     9223372036854775807 kB\n"
                "MemAvailable: 9223372036854775807 kB\n"
                "Mlocked:      9223372036854775807 kB\n"
                "Unevictable:  9223372036854775807 kB\n");
  machine.write("/proc/vmstat", "pswpout 999999999999999\n");
  machine.write("/proc/cpuinfo", "cpu MHz\t\t: 1e300\n");
  int a = -1, b = -1;
  System::getTotalMemoryMB(a, b);
  EXPECT_EQ(a, INT_MAX);
  EXPECT_EQ(b, INT_MAX);
  System::getAvailableMemoryMB(a, b);
  EXPECT_EQ(a, 2047);
  System::getUsedMemoryMB(a, b);
  EXPECT_EQ(a, 2047);
  EXPECT_EQ(b, 2047);
  machine.write("/proc/meminfo", "Mlocked: 67108864 kB\n");  // alone, 64 GiB
  System::getUsedMemoryMB(a, b);
  EXPECT_EQ(a, 2047);
  EXPECT_EQ(System::getProcessorClockSpeed(), static_cast<double>(static_cast<float>(ULLONG_MAX)));
  machine.write("/sys/devices/system/cpu/cpu0/cpufreq/cpuinfo_max_freq", "18446744073709551615\n");
  EXPECT_EQ(System::getProcessorClockSpeed(), static_cast<double>(static_cast<float>(ULLONG_MAX)));
}

TEST(FakeMachineTree, MissingOrUnreadableFilesGiveZeroUnknownAndFalse) {
  FakeMachine machine;  // an empty tree
  int a = -1, b = -1;
  System::getTotalMemoryMB(a, b);
  EXPECT_EQ(a, 0);
  EXPECT_EQ(b, 0);
  System::getAvailableMemoryMB(a, b);
  EXPECT_EQ(a, 0);
  System::getUsedMemoryMB(a, b);
  EXPECT_EQ(a, 0);
  EXPECT_EQ(b, 0);
  EXPECT_EQ(System::getProcessorClockSpeed(), 0.0);
  int major = -1, minor = -1, build = -1, patch = -1;
  System::OSVersion os;
  System::getOSVersion(os, major, minor, build, patch);
  EXPECT_EQ(os, System::OS_LINUX);
  EXPECT_EQ(major + minor + build + patch, 0);
  // A folder where the file should be cannot be read as a file.
  ASSERT_TRUE(QDir().mkpath(machine.root() + "/proc/meminfo"));
  a = b = -1;
  System::getTotalMemoryMB(a, b);
  EXPECT_EQ(a, 0);
  EXPECT_EQ(b, 0);
}

TEST(FakeMachineTree, ClockSpeedPrefersCpufreqThenCpuinfo) {
  FakeMachine machine;
  machine.write("/proc/cpuinfo",
                "processor\t: 0\ncpu MHz\t\t: 2400.000\nprocessor\t: 1\ncpu MHz\t\t: 3100.5\n");
  EXPECT_EQ(System::getProcessorClockSpeed(), static_cast<double>(3100500000.0f))
      << "the largest cpu MHz, through single precision";
  machine.write("/sys/devices/system/cpu/cpu0/cpufreq/cpuinfo_max_freq", "3600000\n");
  EXPECT_EQ(System::getProcessorClockSpeed(), 3.6e9);
  machine.write("/sys/devices/system/cpu/cpu0/cpufreq/cpuinfo_max_freq", "junk\n");
  EXPECT_EQ(System::getProcessorClockSpeed(), static_cast<double>(3100500000.0f))
      << "an unreadable cpufreq falls back to cpuinfo";
}

// --- the real machine ------------------------------------------------------

long long realMeminfoKilobytes(const std::string& key) {
  std::ifstream meminfo("/proc/meminfo");
  std::string name;
  long long value = -1;
  std::string unit;
  while (meminfo >> name >> value >> unit)
    if (name == key + ":") return value;
  return -1;
}

TEST(RealMachine, KernelNumbersMatchUname) {
  struct utsname names {};
  ASSERT_EQ(::uname(&names), 0);
  System::OSVersion os;
  int major, minor, build, patch;
  System::getOSVersion(os, major, minor, build, patch);
  EXPECT_EQ(major, std::atoi(names.release));
  const std::string release = names.release;
  const std::string expectedPrefix = std::to_string(major) + "." + std::to_string(minor) + ".";
  EXPECT_EQ(release.rfind(expectedPrefix, 0), 0u) << release;
  EXPECT_TRUE(System::getOSVersionString().startsWith(QStringLiteral("Linux (")));
}

TEST(RealMachine, ProcessorCountAndTypeMatchSysconfAndCpuinfo) {
  EXPECT_EQ(System::getNumProcessors(), ::sysconf(_SC_NPROCESSORS_ONLN));
  EXPECT_FALSE(System::supportsIntelMMX());
  EXPECT_FALSE(System::supportsIntelSIMD());
#if defined(__i386__) || defined(__x86_64__)
  std::ifstream cpuinfo("/proc/cpuinfo");
  std::string line;
  int family = -1;
  while (std::getline(cpuinfo, line))
    if (line.rfind("cpu family", 0) == 0) {
      family = std::stoi(line.substr(line.find(':') + 1));
      break;
    }
  if (family < 0) GTEST_SKIP() << "/proc/cpuinfo has no cpu family line";
  EXPECT_EQ(System::getProcessorType(), env_detail::processorTypeForX86Family(family));
#else
  EXPECT_EQ(System::getProcessorType(), 0u);
#endif
}

TEST(RealMachine, MemoryMatchesProcMeminfo) {
  const long long totalKb = realMeminfoKilobytes("MemTotal");
  if (totalKb < 0) GTEST_SKIP() << "no /proc/meminfo";
  int total = 0, second = 0;
  System::getTotalMemoryMB(total, second);
  EXPECT_EQ(total, totalKb >> 10);
  EXPECT_EQ(second, 4 * total);
  // Available memory moves while the test runs; compare within 256 MB.
  const long long availableKb = realMeminfoKilobytes("MemAvailable");
  int available = 0;
  System::getAvailableMemoryMB(available, second);
  EXPECT_NEAR(available, std::min(availableKb * 1024, (long long)INT_MAX) >> 20, 256);
  EXPECT_EQ(second, 2047);
}

}  // namespace
}  // namespace kestrel
