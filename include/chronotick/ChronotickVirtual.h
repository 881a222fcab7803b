#pragma once

#include <chronotick/ChronotickBase.h>
#include <chronotick/Export.h>

#include <cstdint>
#include <string>

namespace chronotick {

// A tagger without hardware: plays .ctbin recordings, paced against the wall
// clock, and emulates per-channel input delay, dead time and a test signal.
// Obtained from createChronotickVirtual and given back with freeChronotick.
class CHRONOTICK_API ChronotickVirtual : virtual public ChronotickBase {
public:
  // Queues a recording (any part name or its base name). `begin` < 0 plays
  // -begin ps of silence first, `begin` > 0 skips that much of the recording;
  // `duration` < 0 plays to the end, otherwise exactly that long (silence
  // after the end). With `queue` false every queued replay is dropped first.
  // Returns the id of the new replay.
  virtual std::uint64_t replay(const std::string &file, std::int64_t begin = 0, std::int64_t duration = -1,
                               bool queue = true) = 0;
  // Drops every queued replay and closes the current file.
  virtual void stop() = 0;
  // True if the replay `id` (0: the last one) has finished. timeout in
  // milliseconds: 0 only tests, negative waits without limit.
  virtual bool waitForCompletion(std::uint64_t id = 0, std::int32_t timeout = -1) = 0;
  // 1.0 real time, above 0 paced, 0 paused, below 0 as fast as possible.
  virtual void setReplaySpeed(double speed) = 0;
  virtual double getReplaySpeed() = 0;

  ~ChronotickVirtual() override;

protected:
  ChronotickVirtual() = default;
};

} // namespace chronotick
