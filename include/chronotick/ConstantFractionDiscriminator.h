#pragma once

#include <chronotick/Export.h>
#include <chronotick/IteratorBase.h>
#include <chronotick/Tag.h>

#include <cstddef>
#include <cstdint>
#include <vector>

namespace chronotick {

class ChronotickBase;

// Puts one tag at the centre of each pulse, seen as a rising edge on a named
// channel followed by the edge of its inverted channel within search_window.
// The centre is independent of the pulse height. The whole stream leaves
// delayed by search_window / 2 so that centres fall in order.
class CHRONOTICK_API ConstantFractionDiscriminator : public IteratorBase {
public:
  ConstantFractionDiscriminator(ChronotickBase *tagger, std::vector<std::int32_t> channels, std::int64_t search_window);
  ~ConstantFractionDiscriminator() override;

  // One output channel for each entry of the constructor's list, in order.
  std::vector<std::int32_t> getChannels();

protected:
  void on_start() override;
  bool next_impl(std::vector<Tag> &tags, std::int64_t begin_time, std::int64_t end_time) override;

private:
  struct Edge {
    bool leading = false;  // a channel that the client named
    bool valid = false;    // time holds a leading edge not yet used
    std::int64_t time = 0; // last leading edge
    bool trailing = false; // the inverted channel of a named channel
    std::int32_t partner = -1;
    std::int32_t output_channel = CHANNEL_UNUSED;
  };

  std::int32_t findOrAddEdge(std::int32_t channel);
  std::int32_t edgeOf(std::int32_t channel) const;
  void buildLookup();
  void addCentre(const Tag &centre);
  void releaseBelow(std::int64_t time);

  std::int64_t search_window;
  std::int64_t delay;
  std::vector<std::int32_t> output_channels;
  std::vector<Edge> edges;
  std::vector<std::int32_t> edge_channels;
  // Edge index by channel - lookup_base, -1 for none; empty if the channels
  // spread too far, then edge_channels is searched instead.
  std::vector<std::int32_t> lookup;
  std::int64_t lookup_base = 0;
  std::vector<Tag> output;
  // Tags waiting for their time from [head] on, each vector in time order:
  // the delayed stream, and the centres (by time, then channel).
  std::vector<Tag> delayed;
  std::size_t delayed_head = 0;
  std::vector<Tag> centres;
  std::size_t centres_head = 0;
};

} // namespace chronotick
