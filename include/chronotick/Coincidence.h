#pragma once

#include <chronotick/Coincidences.h>

#include <cstdint>
#include <vector>

namespace chronotick {

// Coincidences of exactly one group of channels: a tag goes out on the new
// channel whenever every listed channel had a tag within the coincidence
// window (ps). Breaks, timestamps, thread safety and errors are as for
// Coincidences; an empty list throws std::runtime_error("one of the groups is
// empty").
class CHRONOTICK_API Coincidence : public Coincidences {
public:
  Coincidence(ChronotickBase *tagger, std::vector<std::int32_t> channels, std::int64_t coincidenceWindow = 1000,
              CoincidenceTimestamp timestamp = CoincidenceTimestamp::Last);
  ~Coincidence() override;

  // The new channel.
  std::int32_t getChannel();
};

} // namespace chronotick
