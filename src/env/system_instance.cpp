// The instance of kestrel::System, its planet model, the pseudo-random
// generators, identifiers, OS names and the fixed answers of this platform.
#include "env/machine.h"

#include <QUuid>

#include <cerrno>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <cwctype>

namespace kestrel {

double System::sPlanetRadius = 6371000.0;
double System::sInvPlanetRadius = 1.5696123057604772e-07;
double System::fseed = 0.0;

// Built after the statics above: constant-initialised values are in place
// before any dynamic initialiser runs.
System System::theSystem;

System::System() {
  env_detail::startApplicationClock();
  seed(static_cast<unsigned int>(std::time(nullptr)));
}

// The error and notice logs belong to the status family, which closes its
// own streams; this family owns no stream.
System::~System() = default;

namespace {

constexpr const char* kOSNames[] = {
    "UNKNOWN",
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
    "Playstation 3",
};

}  // namespace

QString System::getOSName(OSVersion& os) {
  const int index = static_cast<int>(os);
  const int count = static_cast<int>(sizeof kOSNames / sizeof kOSNames[0]);
  return QString::fromLatin1(index > 0 && index < count ? kOSNames[index] : kOSNames[0]);
}

namespace env_detail {

QString osVersionString(System::OSVersion os, int major, int minor, int build, int patch) {
  QString text = System::getOSName(os);
  switch (os) {
    case System::OS_MACOSX:
      return text + QStringLiteral(" (%1.%2.%3)").arg(major).arg(minor).arg(build);
    case System::OS_LINUX:
      return text + QStringLiteral(" (%1.%2.%3.%4)").arg(major).arg(minor).arg(build).arg(patch);
    default:
      return text + QStringLiteral(" (Service Pack %1)").arg(patch);
  }
}

}  // namespace env_detail

void System::seed(unsigned int s) {
  std::srand(s == 0 ? 3141592u : s);
  const int a = random(2, 10);
  const int b = random(2, 10);
  fseed = 1.0 / a + 1.0 / b;
}

int System::random(int lo, int hi) {
  if (hi < lo) return 0;
  if (hi == lo) return lo;
  const long long range = static_cast<long long>(hi) - lo;
  return static_cast<int>(lo + std::rand() % range);
}

double System::randf() {
  const double x = fseed + M_PI;
  const double y = std::pow(x, 5.0);
  fseed = y - std::trunc(y);
  return fseed;
}

System::GUID System::getGUID() {
  const QByteArray bytes = QUuid::createUuid().toRfc4122();
  GUID guid{};
  static_assert(sizeof guid.words == 16);
  std::memcpy(guid.words, bytes.constData(), sizeof guid.words);
  return guid;
}

bool System::loadProviderStats(void*, unsigned long& size) {
  size = 0;
  return false;
}
bool System::saveProviderStats(const void*, unsigned long) {
  return false;
}
bool System::doesAppOwnKML() {
  return true;
}
void System::restoreKMLAssociation() {}
bool System::supportsDirectIo(const QString&) {
  return false;
}
bool System::getDirectIoInfo(const QString&, DirectIoInfo&) {
  return false;
}
int System::getLastError() {
  return errno;
}

int wcsicmp(const wchar_t* a, const wchar_t* b) {
  for (;; ++a, ++b) {
    if (*a == L'\0') return *b == L'\0' ? 0 : -1;
    if (*b == L'\0') return 1;
    const auto la = std::towlower(static_cast<wint_t>(*a));
    const auto lb = std::towlower(static_cast<wint_t>(*b));
    if (la != lb) return la < lb ? -1 : 1;
  }
}

}  // namespace kestrel
