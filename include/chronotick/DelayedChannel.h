#pragma once

#include <chronotick/IteratorBase.h>
#include <chronotick/Tag.h>

#include <cstdint>
#include <memory>
#include <vector>

namespace chronotick {

// Adds delayed copies of one or more channels, each on a new channel. With a
// positive delay the copies are held back; with a negative delay the rest of
// the stream is held back instead, so that the copies run ahead of their
// sources. Either way the block stays in time order.
class CHRONOTICK_API DelayedChannel : public IteratorBase {
public:
  DelayedChannel(ChronotickBase *tagger, std::int32_t input_channel, std::int64_t delay);
  DelayedChannel(ChronotickBase *tagger, std::vector<std::int32_t> input_channels, std::int64_t delay);
  ~DelayedChannel() override;

  // The copy of the first input.
  std::int32_t getChannel();
  // The copies, in the order of the inputs.
  std::vector<std::int32_t> getChannels();
  // A smaller positive delay drops the copies that are waiting. A negative
  // delay can't follow a positive one once built.
  void setDelay(std::int64_t delay);

protected:
  void on_start() override;
  bool next_impl(std::vector<Tag> &tags, std::int64_t begin_time, std::int64_t end_time) override;

private:
  struct Pending; // the queue and the channel map
  template <bool positive_delay, bool linear_lookup> void process(std::vector<Tag> &tags, std::int64_t end_time);
  // The usual case of a negative delay, without queueing the block's tags one
  // by one; false if a change of delay left the queue out of step with them.
  template <bool linear_lookup> bool holdBack(std::vector<Tag> &tags, std::int64_t end_time);

  std::vector<Tag> output;
  std::unique_ptr<Pending> pending;
  std::vector<std::int32_t> inputs;
  std::vector<std::int32_t> outputs;
  std::uint64_t channel_count = 0;
  std::int64_t delay;
  bool positive;
  bool in_overflow = false;
  bool built = false;
  // Set when a negative delay turns positive with stream tags still held back.
  bool holds_stream_tags = false;
};

} // namespace chronotick
