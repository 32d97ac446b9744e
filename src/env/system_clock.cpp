// The application clock, wall-clock times, the time zone and frame timing of
// kestrel::System.
#include "env/machine.h"

#include <kestrel/threads.h>

#include <atomic>
#include <ctime>

#include <sys/time.h>

namespace kestrel {

int System::sCurFrame = 0;
double System::frameRate = 0.0;
double System::globalDT = 0.0;
double sStartTime = 0.0;

namespace {

// Zero of the application clock in whole microseconds of CLOCK_MONOTONIC,
// fixed by the constructor of System::theSystem. The monotonic clock keeps
// the microsecond arithmetic of the wall clock without its jumps.
struct ClockZero {
  long long seconds;
  long long microseconds;
};
constinit ClockZero gClockZero{0, 0};

// Seconds from 0000-01-01 to 1970-01-01 in the proleptic Gregorian calendar
// (719528 days).
constexpr double kUnixEpochFromYearZero = 719528.0 * 86400.0;

// getCurrTime(): the wall clock read once, and the application clock then.
std::atomic<bool> gCurrTimeSet{false};
long gCurrTimeBase = 0;
double gCurrTimeAt = 0.0;

// updateGlobalDT() state.
double (*gFrameClock)() = nullptr;
bool gFrameFirstCall = true;
bool gFrameActive = false;
double gFrameLastTime = 0.0;

double frameClock() {
  return gFrameClock ? gFrameClock() : System::getTime();
}

// Seconds from year 0 to the UTC calendar moment of t.
double secondsFromYearZero(std::time_t t) {
  std::tm utc{};
  if (::gmtime_r(&t, &utc) == nullptr) return 0.0;
  // Days from 1970-01-01 to the civil date (proleptic Gregorian).
  long long y = utc.tm_year + 1900LL;
  const long long m = utc.tm_mon + 1;
  y -= m <= 2;
  const long long era = (y >= 0 ? y : y - 399) / 400;
  const long long yoe = y - era * 400;
  const long long doy = (153 * (m + (m > 2 ? -3 : 9)) + 2) / 5 + utc.tm_mday - 1;
  const long long doe = yoe * 365 + yoe / 4 - yoe / 100 + doy;
  const long long days = era * 146097 + doe - 719468;
  return kUnixEpochFromYearZero + static_cast<double>(days) * 86400.0 + utc.tm_hour * 3600.0 +
         utc.tm_min * 60.0 + utc.tm_sec;
}

}  // namespace

namespace env_detail {

void startApplicationClock() {
  timespec now{};
  ::clock_gettime(CLOCK_MONOTONIC, &now);
  gClockZero = {static_cast<long long>(now.tv_sec), static_cast<long long>(now.tv_nsec / 1000)};
  sStartTime = secondsFromYearZero(std::time(nullptr));
}

void setFrameClock(double (*clock)()) {
  gFrameClock = clock;
}

void resetFrameState() {
  gFrameFirstCall = true;
  gFrameActive = false;
  gFrameLastTime = 0.0;
  System::frameRate = 0.0;
  System::globalDT = 0.0;
}

}  // namespace env_detail

double System::getTime() {
  timespec now;
  ::clock_gettime(CLOCK_MONOTONIC, &now);
  return static_cast<double>(now.tv_sec - gClockZero.seconds) +
         static_cast<double>(now.tv_nsec / 1000 - gClockZero.microseconds) / 1000000.0;
}

long long System::getSystemTime() {
  timeval now{};
  ::gettimeofday(&now, nullptr);
  return static_cast<long long>(now.tv_sec) * 1000 + now.tv_usec / 1000;
}

double System::getStartTime() {
  return sStartTime;
}

long System::getCurrTime() {
  if (!gCurrTimeSet.load(std::memory_order_acquire)) {
    GlobalLock::lock();
    if (!gCurrTimeSet.load(std::memory_order_relaxed)) {
      gCurrTimeBase = static_cast<long>(std::time(nullptr));
      gCurrTimeAt = getTime();
      gCurrTimeSet.store(true, std::memory_order_release);
    }
    GlobalLock::unlock();
  }
  return gCurrTimeBase + static_cast<long>(getTime() - gCurrTimeAt);
}

void System::getLocalTimeZone(int& hours, int& minutes) {
  const std::time_t now = std::time(nullptr);
  std::tm local{};
  ::tzset();
  if (::localtime_r(&now, &local) == nullptr) {
    hours = minutes = 0;
    return;
  }
  const long offsetMinutes = local.tm_gmtoff / 60;
  hours = static_cast<int>(offsetMinutes / 60);
  minutes = static_cast<int>(offsetMinutes % 60);
}

QString System::wctime(const long* time) {
  if (time == nullptr) return {};
  const std::time_t t = *time;
  char text[64];
  return ::ctime_r(&t, text) ? QString::fromUtf8(text) : QString();
}

QString System::wasctime(struct ::tm* time) {
  if (time == nullptr) return {};
  char text[64];
  return ::asctime_r(time, text) ? QString::fromUtf8(text) : QString();
}

double System::getGlobalDT() {
  return globalDT;
}
double System::getFrameRate() {
  return frameRate;
}

void System::setFixedFrameRate(bool fixed, double rate) {
  frameRate = fixed ? rate : 0.0;
  if (fixed) updateGlobalDT(false);
}

void System::updateGlobalDT(bool running) {
  if (frameRate != 0.0) {
    globalDT = 1.0 / frameRate;
    return;
  }
  if (gFrameFirstCall) {
    gFrameFirstCall = false;
    gFrameLastTime = frameClock();
  }
  if (!running) {
    gFrameActive = false;
    return;
  }
  if (!gFrameActive) {
    gFrameActive = true;
    gFrameLastTime = frameClock();
    return;
  }
  const double now = frameClock();
  double step = now - gFrameLastTime;
  if (step < 0.0) step = 0.0;
  if (gFrameLastTime != 0.0) globalDT = step;
  gFrameLastTime = now;
  if (globalDT > 0.2) globalDT = 0.2;
}

}  // namespace kestrel
