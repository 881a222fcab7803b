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
  // The state of one pair of edges: the last leading edge not yet used.
  // Two sinks come first, for channels that lead or trail no pair: [0]
  // takes any leading edge and is never read, [1] is never valid.
  struct Pair {
    std::int64_t time = 0;
    bool valid = false;
    std::int32_t output_channel = CHANNEL_UNUSED;
  };
  // What a tag on a channel does: the pair it leads and the pair it trails.
  struct Route {
    std::int32_t leads = 0;
    std::int32_t trails = 1;
  };

  std::size_t findOrAddRoute(std::int32_t channel);
  Route routeOf(std::int32_t channel) const;
  void buildLookup();
  void addCentre(const Tag &centre);
  void releaseBelow(std::int64_t time);

  std::int64_t search_window;
  std::int64_t delay;
  std::vector<std::int32_t> output_channels;
  std::vector<Pair> pairs;
  std::vector<std::int32_t> route_channels;
  std::vector<Route> routes;
  // Route by channel - lookup_base; empty if the channels spread too far,
  // then route_channels is searched instead.
  std::vector<Route> lookup;
  std::int64_t lookup_base = 0;
  std::vector<Tag> fresh_centres; // scratch for one stretch of the block
  std::vector<Tag> output;
  // Tags waiting for their time from [head] on, each vector in time order:
  // the delayed stream, and the centres (by time, then channel).
  std::vector<Tag> delayed;
  std::size_t delayed_head = 0;
  std::vector<Tag> centres;
  std::size_t centres_head = 0;
};

} // namespace chronotick
