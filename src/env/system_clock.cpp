// The application clock and the frame counter of kestrel::System.
#include <kestrel/system.h>

#include <chrono>
#include <ctime>

namespace kestrel {

namespace {
// Zero of the application clock: taken when the library is loaded.
const std::chrono::steady_clock::time_point gClockZero = std::chrono::steady_clock::now();
// Seconds from 0000-01-01 to 1970-01-01 in the proleptic Gregorian calendar
// (719528 days).
constexpr double kUnixEpochFromYearZero = 719528.0 * 86400.0;
}  // namespace

int System::sCurFrame = 0;
double sStartTime = kUnixEpochFromYearZero + static_cast<double>(std::time(nullptr));

double System::getStartTime() { return sStartTime; }

double System::getTime() {
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - gClockZero).count();
}

}  // namespace kestrel
