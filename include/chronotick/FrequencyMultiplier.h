#pragma once

#include <chronotick/Export.h>
#include <chronotick/IteratorBase.h>
#include <chronotick/Tag.h>

#include <cstdint>
#include <vector>

namespace chronotick {

class ChronotickBase;

// Fills each period of a periodic input channel with multiplier - 1 evenly
// spaced tags on a virtual channel, assuming that the next period equals the
// last one. Each input tag re-aligns the grid and, once a period is known,
// also appears on the output.
//
// Events handled: TimeTag on the input channel, from the second one on: a
// copy on the output channel right behind it, then the grid tags of the
// coming period at last + k * P / multiplier (k = 1 .. multiplier - 1, P the
// last period, rounded down to whole ps). An input that comes early cancels
// the grid tags at or after it. The first input after construction or after
// a break only sets the phase: it is not copied.
// Error, OverflowBegin/End and MissedEvents: grid tags due before the break go
// out first; then the period is forgotten, and output resumes with the second
// input after the break. All tags of the stream pass unchanged.
// Clear, stop and start keep the period.
// Thread safety: the getters return what was fixed at construction and may be
// called from any thread.
class CHRONOTICK_API FrequencyMultiplier : public IteratorBase {
public:
  // A multiplier below 2 is stored as 1; the output then only repeats the
  // input.
  FrequencyMultiplier(ChronotickBase *tagger, std::int32_t input_channel, std::int32_t multiplier);
  ~FrequencyMultiplier() override;

  // The output channel.
  std::int32_t getChannel();
  // The multiplier as stored (1 for anything below 2).
  std::int32_t getMultiplier();

protected:
  bool next_impl(std::vector<Tag> &tags, std::int64_t begin_time, std::int64_t end_time) override;

private:
  std::int64_t getNextExtrapolatedTag();
  void insertExtrapolatedTag();

  std::vector<Tag> output;
  std::int32_t input_channel;
  std::int32_t output_channel;
  std::int32_t multiplier;
  std::int64_t last_time;     // 0: none
  std::int64_t previous_time; // 0: none
  std::int64_t next_time;     // 0: none
  std::int32_t counter;       // position within the current period
};

} // namespace chronotick
