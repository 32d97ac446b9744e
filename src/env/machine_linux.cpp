// Operating system, processor and memory facts of System on Linux.
#include "env/machine.h"

#include <QFile>

#include <sys/utsname.h>
#include <unistd.h>

#include <algorithm>
#include <climits>

#if defined(__i386__) || defined(__x86_64__)
#include <cpuid.h>
#endif

namespace kestrel {
namespace env_detail {
namespace {

QString& rootStorage() {
  static QString root;
  return root;
}

QByteArray kernelRelease() {
  if (machineRoot().isEmpty()) {
    struct utsname names {};
    if (::uname(&names) != 0) return {};
    return QByteArray(names.release);
  }
  QByteArray text;
  readMachineFile("/proc/sys/kernel/osrelease", text);
  return text.trimmed();
}

// Leading decimal digits of text from pos; 0 if none. Saturates.
int leadingNumber(const QByteArray& text) {
  long long value = 0;
  for (char c : text) {
    if (c < '0' || c > '9') break;
    value = std::min<long long>(value * 10 + (c - '0'), INT_MAX);
  }
  return static_cast<int>(value);
}

// kilobytes (not negative) in bytes, saturated at LLONG_MAX.
long long kilobytesToBytes(long long kilobytes) {
  return kilobytes > LLONG_MAX / 1024 ? LLONG_MAX : kilobytes * 1024;
}

long long memInfoBytes(const char* key) {
  QByteArray meminfo;
  if (!readMachineFile("/proc/meminfo", meminfo)) return -1;
  const long long kilobytes = tableValue(meminfo, key);
  return kilobytes < 0 ? -1 : kilobytesToBytes(kilobytes);
}

// hertz as a floating-point value, through single precision; saturated at
// the largest unsigned 64-bit count.
double hertzThroughFloat(unsigned long long hertz) {
  return static_cast<double>(static_cast<float>(hertz));
}

int clampToInt(long long value) {
  return static_cast<int>(std::clamp<long long>(value, 0, INT_MAX));
}

}  // namespace

void setMachineRoot(const QString& root) {
  rootStorage() = root;
}
QString machineRoot() {
  return rootStorage();
}

bool readMachineFile(const char* absolutePath, QByteArray& contents) {
  // /proc and /sys files report a size of 0 or 4096 whatever they hold, so
  // read to the end instead of trusting the size.
  QFile file(rootStorage() + QString::fromLatin1(absolutePath));
  if (!file.open(QIODevice::ReadOnly)) return false;
  contents = file.readAll();
  return file.error() == QFileDevice::NoError;
}

void parseKernelRelease(const QByteArray& release, int& major, int& minor, int& build, int& patch) {
  int* fields[] = {&major, &minor, &build, &patch};
  for (int* field : fields) *field = 0;
  QByteArray normalised = release.trimmed();
  normalised.replace('-', '.');
  const QList<QByteArray> parts = normalised.split('.');
  for (int i = 0; i < 4 && i < parts.size(); ++i) *fields[i] = leadingNumber(parts[i]);
}

unsigned int processorTypeForX86Family(int family) {
  if (family >= 6) return 6;
  if (family == 5) return 5;
  if (family == 4) return 4;
  return 3;
}

long long tableValue(const QByteArray& table, const QByteArray& key) {
  for (const QByteArray& line : table.split('\n')) {
    if (!line.startsWith(key)) continue;
    QByteArray rest = line.mid(key.size());
    if (rest.startsWith(':'))
      rest = rest.mid(1);
    else if (!rest.startsWith(' ') && !rest.startsWith('\t'))
      continue;  // a longer key
    rest = rest.trimmed();
    bool ok = false;
    const long long value = rest.split(' ').value(0).toLongLong(&ok);
    return ok && value >= 0 ? value : -1;
  }
  return -1;
}

double largestCpuMHzInHertz(const QByteArray& cpuinfo) {
  double largest = 0.0;
  for (const QByteArray& line : cpuinfo.split('\n')) {
    if (!line.startsWith("cpu MHz")) continue;
    const int colon = line.indexOf(':');
    if (colon < 0) continue;
    bool ok = false;
    const double mhz = line.mid(colon + 1).trimmed().toDouble(&ok);
    if (ok && mhz > largest) largest = mhz;
  }
  return largest * 1e6;
}

int saturatedMegabytes(long long bytes) {
  if (bytes < 0 || bytes > INT_MAX) bytes = INT_MAX;
  return static_cast<int>(bytes >> 20);
}

}  // namespace env_detail

using namespace env_detail;

void System::getOSVersion(OSVersion& os, int& major, int& minor, int& build, int& patch) {
  os = OS_LINUX;
  parseKernelRelease(kernelRelease(), major, minor, build, patch);
}

System::OSVersion System::getOSVersion() {
  return OS_LINUX;
}

QString System::getOSVersionString() {
  OSVersion os;
  int major, minor, build, patch;
  getOSVersion(os, major, minor, build, patch);
  return osVersionString(os, major, minor, build, patch);
}

unsigned int System::getProcessorType() {
#if defined(__i386__) || defined(__x86_64__)
  unsigned int eax = 0, ebx = 0, ecx = 0, edx = 0;
  if (__get_cpuid(1, &eax, &ebx, &ecx, &edx) == 0) return processorTypeForX86Family(0);
  int family = static_cast<int>((eax >> 8) & 0xF);
  if (family == 0xF) family += static_cast<int>((eax >> 20) & 0xFF);
  return processorTypeForX86Family(family);
#else
  return 0;
#endif
}

double System::getProcessorClockSpeed() {
  QByteArray text;
  if (readMachineFile("/sys/devices/system/cpu/cpu0/cpufreq/cpuinfo_max_freq", text)) {
    bool ok = false;
    const unsigned long long kilohertz = text.trimmed().toULongLong(&ok);
    if (ok && kilohertz > 0)
      return hertzThroughFloat(kilohertz > ULLONG_MAX / 1000 ? ULLONG_MAX : kilohertz * 1000ULL);
  }
  if (readMachineFile("/proc/cpuinfo", text)) {
    const double hertz = largestCpuMHzInHertz(text);
    // 2^64 and beyond (infinity included) do not fit the integer count.
    return hertzThroughFloat(
        hertz >= 18446744073709551616.0 ? ULLONG_MAX : static_cast<unsigned long long>(hertz));
  }
  return 0.0;
}

int System::getNumProcessors() {
  const long online = ::sysconf(_SC_NPROCESSORS_ONLN);
  return online < 1 ? 1 : static_cast<int>(std::min<long>(online, INT_MAX));
}

bool System::supportsIntelMMX() {
  return false;
}
bool System::supportsIntelSIMD() {
  return false;
}

void System::getTotalMemoryMB(int& total, int& second) {
  const long long bytes = memInfoBytes("MemTotal");
  total = bytes < 0 ? 0 : clampToInt(bytes >> 20);
  second = clampToInt(4LL * total);
}

void System::getAvailableMemoryMB(int& available, int& second) {
  const long long bytes = memInfoBytes("MemAvailable");
  available = bytes < 0 ? 0 : saturatedMegabytes(bytes);
  second = INT_MAX >> 20;
}

void System::getUsedMemoryMB(int& first, int& second) {
  QByteArray meminfo;
  first = 0;
  if (readMachineFile("/proc/meminfo", meminfo)) {
    const long long mlocked = tableValue(meminfo, "Mlocked");
    const long long unevictable = tableValue(meminfo, "Unevictable");
    if (mlocked >= 0 || unevictable >= 0)
      first = saturatedMegabytes(kilobytesToBytes(
          std::min(std::max(mlocked, 0LL), LLONG_MAX - std::max(unevictable, 0LL)) +
          std::max(unevictable, 0LL)));
  }
  second = 0;
  QByteArray vmstat;
  if (readMachineFile("/proc/vmstat", vmstat)) {
    const long long pagesOut = tableValue(vmstat, "pswpout");
    if (pagesOut >= 0) {
      const long long page = ::sysconf(_SC_PAGESIZE);
      const long long limit = INT_MAX / page + 1;  // beyond it the product saturates anyway
      second = saturatedMegabytes(std::min(pagesOut, limit) * page);
    }
  }
}

}  // namespace kestrel
