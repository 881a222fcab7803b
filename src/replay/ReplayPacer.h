#pragma once

#include <cstdint>

namespace chronotick {

// Pacing of a replay against the wall clock. Pure arithmetic on times handed
// in by the caller, so that it can be driven by any clock.
class ReplayPacer {
public:
  // Stream time of a block that isn't taken from a file, ps.
  static constexpr std::int64_t BLOCK_LENGTH = 20000000000;
  // Largest pacing error that is worked off, ns; a larger one re-anchors.
  static constexpr std::int64_t PACE_TOLERANCE = 500000000;

  // Makes (now_ns, stream_time) the point from which pacing counts.
  void anchor(std::int64_t now_ns, std::int64_t stream_time) {
    wall_anchor = now_ns;
    stream_anchor = stream_time;
  }

  // Stream time of an empty block at a positive speed.
  static std::int64_t step(double speed) { return static_cast<std::int64_t>(BLOCK_LENGTH * speed); }

  // For a block about to start at `stream_time`, at a speed above 0: the wall
  // time in ns to sleep before delivering it (0: deliver now). An error beyond
  // the tolerance, either way, re-anchors at (now_ns, stream_time) instead, so
  // that a stall is neither caught up in a burst nor followed by a long sleep.
  std::int64_t delay(std::int64_t now_ns, std::int64_t stream_time, double speed);

  std::int64_t wallAnchor() const { return wall_anchor; }
  std::int64_t streamAnchor() const { return stream_anchor; }

private:
  std::int64_t wall_anchor = 0;   // steady clock, ns
  std::int64_t stream_anchor = 0; // stream time at the wall anchor, ps
};

} // namespace chronotick
