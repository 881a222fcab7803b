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
class CHRONOTICK_API Coincidences : public IteratorBase {
public:
  Coincidences(ChronotickBase *tagger, std::vector<std::vector<std::int32_t>> coincidenceGroups,
               std::int64_t coincidenceWindow = 1000, CoincidenceTimestamp timestamp = CoincidenceTimestamp::Last);
  ~Coincidences() override;

  // The new channels, in the order of the groups.
  std::vector<std::int32_t> getChannels();
  // Takes effect from the next tag; the channels' latest times stay.
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
