#pragma once

#include <chronotick/IteratorBase.h>
#include <chronotick/Tag.h>

#include <cstdint>
#include <vector>

namespace chronotick {

// Copies the tags of one channel to a new channel while a gate is open. A tag
// of the start channel opens the gate; a tag of the stop channel, or any mark
// of lost data, closes it. The gate starts closed and survives clear, stop
// and start.
//
// Events handled: TimeTag on the input channel: copied, right behind itself,
// while the gate is open. A tag of the start channel that is also the input
// is copied; a tag of the stop channel never is, even if it is the input.
// Error, OverflowBegin/End and MissedEvents (on any channel) close the gate
// and are not copied; it stays closed until the next start tag. Every tag of
// the stream passes unchanged.
// Arguments: throws std::runtime_error("Gate start and stop channel must not
// be the same.") if gate_start_channel equals gate_stop_channel.
// Thread safety: getChannel may be called from any thread.
class CHRONOTICK_API GatedChannel : public IteratorBase {
public:
  GatedChannel(ChronotickBase *tagger, std::int32_t input_channel, std::int32_t gate_start_channel,
               std::int32_t gate_stop_channel);
  ~GatedChannel() override;

  // The new channel.
  std::int32_t getChannel();

protected:
  bool next_impl(std::vector<Tag> &tags, std::int64_t begin_time, std::int64_t end_time) override;

private:
  std::vector<Tag> output;
  std::int32_t input_channel;
  std::int32_t gate_start_channel;
  std::int32_t gate_stop_channel;
  std::int32_t virtual_channel;
  bool gate_open = false;
};

} // namespace chronotick
