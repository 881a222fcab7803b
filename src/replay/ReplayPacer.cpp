#include "replay/ReplayPacer.h"

namespace chronotick {

std::int64_t ReplayPacer::delay(std::int64_t now_ns, std::int64_t stream_time, double speed) {
  const std::int64_t elapsed = now_ns - wall_anchor;
  const auto expected =
      static_cast<std::int64_t>(static_cast<double>(stream_time - stream_anchor) * 1e-12 / speed * 1e9);
  if (PACE_TOLERANCE + elapsed < expected || PACE_TOLERANCE + expected < elapsed) {
    anchor(now_ns, stream_time);
    return 0;
  }
  return elapsed < expected ? expected - elapsed : 0;
}

} // namespace chronotick
