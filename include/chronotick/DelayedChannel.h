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
//
// Delay 0 or more: the stream passes unchanged, and each TimeTag of an input
// gets a copy at its time + delay, behind stream tags of the same time.
// Error: copies due before it go out, the ones still waiting are dropped.
// OverflowBegin/End: copies that fall due between the two are dropped with
// the data around them. MissedEvents: not copied.
// Negative delay: each TimeTag of an input is copied at once, at its own time,
// and every tag of the stream, breaks included, leaves |delay| ps later than
// it came: downstream, all channels run |delay| behind. A copy that lands
// inside an overflow stretch of the delayed stream becomes a MissedEvents tag
// (missed_events 1). Error and MissedEvents: not copied; they pass delayed
// like every other tag.
// A start drops whatever is still held back, so with a negative delay the
// last |delay| of the stream before a stop never reaches later measurements.
// Clear changes nothing.
// Arguments: the list constructor throws std::runtime_error("redundant
// channels are not permitted") for a channel named twice.
// Thread safety: setDelay takes the measurement's lock; the channel getters
// return what was fixed at construction. All may be called from any thread
// while the stream runs.
class CHRONOTICK_API DelayedChannel : public IteratorBase {
public:
  DelayedChannel(ChronotickBase *tagger, std::int32_t input_channel, std::int64_t delay);
  DelayedChannel(ChronotickBase *tagger, std::vector<std::int32_t> input_channels, std::int64_t delay);
  ~DelayedChannel() override;

  // The copy of the first input.
  std::int32_t getChannel();
  // The copies, in the order of the inputs.
  std::vector<std::int32_t> getChannels();
  // Delay in ps. A smaller delay of 0 or more drops the copies that are
  // waiting; a larger one keeps them with their times. A negative delay can't
  // follow one of 0 or more: that throws std::invalid_argument("changing from
  // a positive delay to a negative delay while running is not supported"),
  // whether the measurement runs or not.
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
