#pragma once

#include <chronotick/IteratorBase.h>
#include <chronotick/Tag.h>

#include <cstdint>
#include <memory>
#include <vector>

namespace chronotick {

// Which time a coincidence tag gets.
enum class CoincidenceTimestamp : std::int32_t {
  Last = 0,        // the tag that completed the coincidence, emitted at once
  Average = 1,     // mean of the group's latest times, plus the window
  First = 2,       // earliest of the group's latest times, plus the window
  ListedFirst = 3, // latest time of the group's first channel, plus the window
};

// Watches groups of channels. Whenever every channel of a group had a tag
// within the coincidence window, a tag goes out on the group's new channel.
// Tags timed after the window are held back until the stream has passed them.
//
// A group fires at each TimeTag of one of its channels at which the latest tag
// of every channel of the group lies less than the window before it
// (t - latest < window, in ps). Later tags of the group's channels fire again
// as long as the others stay within the window. A channel listed twice in a
// group is tested once; a channel may belong to several groups. The time of a
// coincidence tag follows CoincidenceTimestamp: with Last it stands right
// behind the tag that completed it; with the others it lies up to one window
// later and waits until the stream has passed its time (after stream tags of
// the same time).
// Events handled: Error, OverflowBegin/End and MissedEvents: every channel's
// latest time is forgotten, so no coincidence spans a break. Coincidence tags
// already found but not yet due stay held and go out at their own times,
// possibly after the break tag. All tags of the stream pass unchanged.
// Clear, stop and start keep the latest times and the held tags.
// Arguments: a window of 0 or less never fires. The constructor throws
// std::runtime_error with "invalid coincidence timestamp type",
// "coincidences groups are empty" (no group), "one of the groups is empty", or
// "no more than 64 different channels can be used at once on a single
// Coincidences measurement. Split the groups into multiple measurements".
// Thread safety: getChannels and setCoincidenceWindow may be called from any
// thread while the stream runs; setCoincidenceWindow takes the measurement's
// lock.
class CHRONOTICK_API Coincidences : public IteratorBase {
public:
  Coincidences(ChronotickBase *tagger, std::vector<std::vector<std::int32_t>> coincidenceGroups,
               std::int64_t coincidenceWindow = 1000, CoincidenceTimestamp timestamp = CoincidenceTimestamp::Last);
  ~Coincidences() override;

  // The new channels, in the order of the groups.
  std::vector<std::int32_t> getChannels();
  // Window in ps. Takes effect from the next tag; the channels' latest times
  // stay, and coincidence tags already held keep their times.
  void setCoincidenceWindow(std::int64_t window);

protected:
  bool next_impl(std::vector<Tag> &tags, std::int64_t begin_time, std::int64_t end_time) override;

private:
  struct State;
  template <CoincidenceTimestamp type> void process(std::vector<Tag> &tags, std::int64_t end_time);

  std::vector<Tag> output;
  std::unique_ptr<State> state;
  std::vector<std::int32_t> virtual_channels;
  std::int64_t window;
  CoincidenceTimestamp timestamp_type;
};

} // namespace chronotick
