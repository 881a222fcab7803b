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
// last one. Each input tag re-aligns the grid and also appears on the output.
class CHRONOTICK_API FrequencyMultiplier : public IteratorBase {
public:
  // A multiplier below 2 is stored as 1.
  FrequencyMultiplier(ChronotickBase *tagger, std::int32_t input_channel, std::int32_t multiplier);
  ~FrequencyMultiplier() override;

  std::int32_t getChannel();
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
