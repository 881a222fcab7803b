#pragma once

#include <chronotick/IteratorBase.h>
#include <chronotick/Tag.h>

#include <cstddef>
#include <cstdint>
#include <functional>
#include <vector>

namespace chronotick {

// Merges several channels into one new channel and counts the tags of each
// input. The block's own tags stay; each copy stands right behind its source.
//
// Events handled: every tag on an input channel is copied to the new channel
// with its type kept, and counted as one. So a TimeTag gives a TimeTag, and a
// MissedEvents tag of an input gives a MissedEvents tag on the new channel
// (counted once, whatever its missed_events). Error and OverflowBegin/End
// carry no channel: they pass unchanged and are neither copied nor counted.
// A channel listed twice is copied and counted twice. The counts survive
// stop and start; clear resets them.
// Arguments: nothing is checked; an empty list gives a channel that never
// fires.
// Thread safety: getters may be called from any thread while the stream runs;
// getData takes the measurement's lock.
class CHRONOTICK_API Combiner : public IteratorBase {
public:
  Combiner(ChronotickBase *tagger, std::vector<std::int32_t> channels);
  ~Combiner() override;

  // The new channel.
  std::int32_t getChannel();
  // allocate(number of inputs): tags seen per input since the last clear, in
  // the order of the inputs.
  void getData(std::function<std::int64_t *(std::size_t)> allocator);

protected:
  void clear_impl() override;
  bool next_impl(std::vector<Tag> &tags, std::int64_t begin_time, std::int64_t end_time) override;

private:
  std::vector<std::int32_t> channels;
  std::vector<std::int64_t> counts;
  std::int32_t virtual_channel;
  std::vector<Tag> output;
};

} // namespace chronotick
