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
//
// A pulse is the latest leading edge (a TimeTag on a named channel) and the
// next edge on its inverted channel less than search_window (ps) after it;
// each leading edge serves one pulse at most. The centre tag goes out on the
// pair's output channel at the midpoint of the two edges (rounded up to a
// whole ps) plus search_window / 2, the delay of every other tag; a stream tag
// and a centre of the same time leave the stream tag first.
// Events handled: Error, OverflowBegin/End and MissedEvents: the tags due
// before the break (in delayed time) go out first; everything still held back
// (the last search_window / 2 of the stream, on all channels) and every
// centre not yet out are dropped, open leading edges are forgotten, and the
// break tag itself passes undelayed.
// A start does the same without a break tag, so the last search_window / 2
// of the stream before a stop never reaches later measurements. Clear
// changes nothing.
// Arguments: throws std::invalid_argument("search_window must be at least 1
// ps"), and std::invalid_argument("Channel number <c> has no inverted edge
// required for the CFD") for a channel c whose inverted channel is unused.
// Thread safety: getChannels returns what was fixed at construction and may
// be called from any thread.
class CHRONOTICK_API ConstantFractionDiscriminator : public IteratorBase {
public:
  ConstantFractionDiscriminator(ChronotickBase *tagger, std::vector<std::int32_t> channels, std::int64_t search_window);
  ~ConstantFractionDiscriminator() override;

  // One output channel for each entry of the constructor's list, in order; a
  // channel named twice gets the same output channel twice.
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
