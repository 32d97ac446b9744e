// Private: the absolute deadline of Conditional::timedwait.
#pragma once

#include <cstdint>

namespace kestrel::detail {

struct Deadline {
  std::int64_t seconds;
  long nanoseconds;  // 0 .. 999999999
};

// now + timeoutMs, from a clock reading of nowSeconds + nowMicroseconds.
// Keeps the 32-bit build's arithmetic where it shows: the microsecond sum
// (now's microseconds + timeoutMs x 1000) is a signed 32-bit value, so a
// timeout above 2147483 ms wraps and lands in the past (the wait then times
// out at once). The seconds are 64-bit, so the result stays right after 2038.
inline Deadline conditionalDeadline(std::int64_t nowSeconds, long nowMicroseconds,
                                    unsigned long timeoutMs) {
  const std::uint32_t sum =
      static_cast<std::uint32_t>(nowMicroseconds) + static_cast<std::uint32_t>(timeoutMs) * 1000u;
  const std::int32_t total = static_cast<std::int32_t>(sum);
  Deadline d{nowSeconds + total / 1000000, static_cast<long>(total % 1000000) * 1000};
  if (d.nanoseconds < 0) {  // a wrapped (negative) sum: borrow a second
    d.nanoseconds += 1000000000;
    d.seconds -= 1;
  }
  return d;
}

}  // namespace kestrel::detail
