#include "wall_clock_shift.h"

#include <sys/syscall.h>
#include <sys/time.h>
#include <time.h>
#include <unistd.h>

#include <atomic>

namespace {

std::atomic<long> sShiftSeconds{0};

int realClockGettime(clockid_t clock, timespec* t) {
  return static_cast<int>(syscall(SYS_clock_gettime, clock, t));
}

}  // namespace

extern "C" int clock_gettime(clockid_t clock, timespec* t) noexcept {
  const int rc = realClockGettime(clock, t);
  if (rc == 0 && clock == CLOCK_REALTIME) t->tv_sec += sShiftSeconds.load();
  return rc;
}

extern "C" int gettimeofday(timeval* tv, void*) noexcept {
  timespec t;
  const int rc = clock_gettime(CLOCK_REALTIME, &t);
  if (rc == 0) {
    tv->tv_sec = t.tv_sec;
    tv->tv_usec = t.tv_nsec / 1000;
  }
  return rc;
}

namespace kestrel_test {

WallClockShift::WallClockShift(long seconds) {
  sShiftSeconds = seconds;
}

WallClockShift::~WallClockShift() {
  sShiftSeconds = 0;
}

}  // namespace kestrel_test
