#pragma once

// Tools for tests of the engine and of virtual channels: a recorder that keeps
// every block it is given and counts its starts and stops, and a run of one
// stream cut in several ways.

#include "support/RandomTagStreams.h"
#include "support/TestTagger.h"

#include <chronotick/IteratorBase.h>

#include <gtest/gtest.h>

#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

namespace chronotick::testing {

using Times = std::vector<std::int64_t>;

class BlockRecorder : public IteratorBase {
public:
  explicit BlockRecorder(ChronotickBase *tagger, bool start = true) : IteratorBase(tagger) {
    if (start)
      finishInitialization();
  }
  ~BlockRecorder() override { stop(); }

  std::vector<Block> blocks() {
    auto lock = getLock();
    return recorded;
  }
  // All tags so far, joined.
  std::vector<Tag> tags() {
    std::vector<Tag> all;
    for (const Block &block : blocks())
      all.insert(all.end(), block.tags.begin(), block.tags.end());
    return all;
  }
  int starts() {
    auto lock = getLock();
    return n_start;
  }
  int stops() {
    auto lock = getLock();
    return n_stop;
  }
  // Times of the tags of `channel` so far.
  std::vector<std::int64_t> times(std::int32_t channel) {
    std::vector<std::int64_t> out;
    for (const Tag &tag : tags())
      if (tag.channel == channel)
        out.push_back(tag.time);
    return out;
  }
  // Empty if every block is in time order, continues the one before it and
  // holds no tag past its end; otherwise the first fault.
  std::string orderFault() {
    std::int64_t last_time = INT64_MIN;
    const auto all = blocks();
    for (std::size_t b = 0; b < all.size(); ++b) {
      if (b > 0 && all[b].begin_time != all[b - 1].end_time)
        return "block " + std::to_string(b) + " doesn't start where the one before ended";
      for (const Tag &tag : all[b].tags) {
        if (tag.time < last_time || tag.time > all[b].end_time)
          return "block " + std::to_string(b) + ": tag at " + std::to_string(tag.time) + " out of order";
        last_time = tag.time;
      }
    }
    return "";
  }

protected:
  bool next_impl(std::vector<Tag> &tags, std::int64_t begin_time, std::int64_t end_time) override {
    recorded.push_back(Block{tags, begin_time, end_time});
    return false;
  }
  void on_start() override { ++n_start; }
  void on_stop() override { ++n_stop; }
  void clear_impl() override { recorded.clear(); }

private:
  std::vector<Block> recorded;
  int n_start = 0, n_stop = 0;
};

// Pushes `stream` over [0, end] through a fresh tagger with a T built from
// `args` and a recorder behind it: in one block, in a few random blocks, and
// in many small ones with empty blocks among them. Checks every run's block
// order; returns each run's output and T's output channels.
template <typename T, typename... Args>
std::pair<std::vector<std::vector<Tag>>, std::vector<std::int32_t>>
runCut(const std::vector<Tag> &stream, std::int64_t end, std::uint64_t seed, const Args &...args) {
  std::pair<std::vector<std::vector<Tag>>, std::vector<std::int32_t>> result;
  const std::size_t n = stream.size();
  for (const auto &cuts : {std::vector<std::size_t>{}, randomCuts(n, 25, seed), randomCuts(n, n / 6, seed + 1)}) {
    TestTagger tagger;
    T channel(&tagger, args...);
    if constexpr (requires { channel.getChannels(); })
      result.second = channel.getChannels();
    else
      result.second = {channel.getChannel()};
    BlockRecorder recorder(&tagger);
    tagger.pushCut(stream, cuts, 0, end);
    tagger.waitUntilDone();
    EXPECT_EQ(recorder.orderFault(), "") << cuts.size() << " cuts";
    result.first.push_back(recorder.tags());
  }
  return result;
}

// The message of the E that make() throws, or "no error"; other exceptions pass.
template <typename E = std::runtime_error, typename Make> std::string messageOf(Make make) {
  try {
    make();
  } catch (const E &e) {
    return e.what();
  }
  return "no error";
}

} // namespace chronotick::testing
