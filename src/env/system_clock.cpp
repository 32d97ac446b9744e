// The application clock and the frame counter of kestrel::System.
#include <kestrel/system.h>

#include <chrono>

namespace kestrel {

namespace {
// Zero of the application clock: taken when the library is loaded.
const std::chrono::steady_clock::time_point gClockZero = std::chrono::steady_clock::now();
}  // namespace

int System::sCurFrame = 0;

double System::getTime() {
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - gClockZero).count();
}

}  // namespace kestrel
