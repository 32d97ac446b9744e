// Viewing distance <-> map zoom level (0 .. 19, 187.5 distance units at 19).
#include <kestrel/coordinates.h>

#include <cmath>

namespace kestrel {
namespace {
constexpr double kClosestDistance = 187.5;
constexpr int kMaxZoom = 19;
}  // namespace

int DistanceToMapsZoom(double distance) {
  const double x = distance < 1.0 ? 1.0 / kClosestDistance : distance / kClosestDistance;
  const double zoom = std::trunc(kMaxZoom - std::log2(x));
  if (std::isnan(zoom)) return 0;
  if (zoom < 0.0) return 0;
  if (zoom > kMaxZoom) return kMaxZoom;
  return static_cast<int>(zoom);
}

double MapsZoomToDistance(int zoom) {
  const int steps = zoom < 0 ? kMaxZoom : zoom > kMaxZoom ? 0 : kMaxZoom - zoom;
  return std::ldexp(kClosestDistance, steps);
}

}  // namespace kestrel
