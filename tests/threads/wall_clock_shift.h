// Shifts the process's wall clock for the code under test, without touching
// the system's clock: the test program defines clock_gettime and
// gettimeofday itself, which the dynamic linker then binds the library's
// calls to. The monotonic clocks and everything else pass through unchanged.
#pragma once

namespace kestrel_test {

// While alive, CLOCK_REALTIME and gettimeofday() read `seconds` away from the
// real wall clock, as if someone had just set the system clock.
class WallClockShift {
 public:
  explicit WallClockShift(long seconds);
  ~WallClockShift();

  WallClockShift(const WallClockShift&) = delete;
  WallClockShift& operator=(const WallClockShift&) = delete;
};

}  // namespace kestrel_test
