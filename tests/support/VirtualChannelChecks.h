#pragma once

// Tools for reference checks of virtual channels: random tag streams with
// breaks, and a recorder that keeps every block that reaches it.

#include "support/TestTagger.h"
#include <chronotick/IteratorBase.h>
#include <chronotick/Tag.h>

#include <gtest/gtest.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <random>
#include <sstream>
#include <string>
#include <vector>

namespace chronotick::testing::vcheck {

inline Tag timeTag(std::int32_t channel, std::int64_t time) {
  return Tag{Tag::Type::TimeTag, 0, 0, channel, time};
}

inline Tag specialTag(Tag::Type type, std::int64_t time, std::int32_t channel = 0, std::uint16_t missed = 0) {
  return Tag{type, 0, missed, channel, time};
}

inline std::string describe(const Tag &tag) {
  std::ostringstream text;
  text << "{type " << int(tag.type) << ", ch " << tag.channel << ", t " << tag.time << ", missed " << tag.missed_events
       << "}";
  return text.str();
}

struct RandomStreamOptions {
  std::vector<std::int32_t> channels;   // picked uniformly
  std::size_t n_tags = 10000;           // time tags, breaks come on top
  std::int64_t start = 1000000;         // time of the first tag
  std::int64_t mean_gap = 100;          // exponential gaps between tags, ps
  double equal_time_probability = 0.02; // a gap of 0
  double overflow_probability = 0.001;  // an overflow stretch starts after a tag
  double error_probability = 0.0005;    // an Error tag after a tag
  double missed_probability = 0.0005;   // a lone MissedEvents tag after a tag
};

// A sorted stream of time tags with overflow stretches (OverflowBegin, a few
// MissedEvents, OverflowEnd), lone Error and MissedEvents tags.
inline std::vector<Tag> randomStream(const RandomStreamOptions &options, std::uint64_t seed) {
  std::mt19937_64 rng(seed);
  std::exponential_distribution<double> gap(1.0 / double(options.mean_gap));
  std::uniform_real_distribution<double> unit(0.0, 1.0);
  std::uniform_int_distribution<std::size_t> pick(0, options.channels.size() - 1);
  std::vector<Tag> tags;
  std::int64_t t = options.start;
  auto advance = [&] {
    if (unit(rng) >= options.equal_time_probability)
      t += 1 + std::int64_t(gap(rng));
  };
  for (std::size_t i = 0; i < options.n_tags; ++i) {
    advance();
    tags.push_back(timeTag(options.channels[pick(rng)], t));
    double roll = unit(rng);
    if (roll < options.overflow_probability) {
      advance();
      tags.push_back(specialTag(Tag::Type::OverflowBegin, t));
      int n_missed = int(unit(rng) * 4);
      for (int m = 0; m < n_missed; ++m) {
        t += 1 + std::int64_t(gap(rng) * 20);
        tags.push_back(
            specialTag(Tag::Type::MissedEvents, t, options.channels[pick(rng)], std::uint16_t(1 + unit(rng) * 1000)));
      }
      t += 1 + std::int64_t(gap(rng) * 20);
      tags.push_back(specialTag(Tag::Type::OverflowEnd, t));
    } else if ((roll -= options.overflow_probability) < options.error_probability) {
      advance();
      tags.push_back(specialTag(Tag::Type::Error, t));
    } else if ((roll -= options.error_probability) < options.missed_probability) {
      advance();
      tags.push_back(specialTag(Tag::Type::MissedEvents, t, options.channels[pick(rng)], 7));
    }
  }
  return tags;
}

// Keeps every block it is given, unchanged. Build it after the channel under
// test to see that channel's output block by block.
class OutputRecorder : public IteratorBase {
public:
  struct Block {
    std::vector<Tag> tags;
    std::int64_t begin_time;
    std::int64_t end_time;
  };

  explicit OutputRecorder(ChronotickBase *tagger) : IteratorBase(tagger) { finishInitialization(); }
  ~OutputRecorder() override { stop(); }

  std::vector<Block> blocks() {
    auto lock = getLock();
    return recorded;
  }

protected:
  bool next_impl(std::vector<Tag> &tags, std::int64_t begin_time, std::int64_t end_time) override {
    recorded.push_back(Block{tags, begin_time, end_time});
    return false;
  }

private:
  std::vector<Block> recorded;
};

// Every block in time order, none before the end of the one before it, and
// the blocks' spans contiguous.
inline ::testing::AssertionResult blocksInOrder(const std::vector<OutputRecorder::Block> &blocks) {
  std::int64_t last = INT64_MIN;
  for (std::size_t b = 0; b < blocks.size(); ++b) {
    const auto &block = blocks[b];
    if (b > 0 && block.begin_time != blocks[b - 1].end_time)
      return ::testing::AssertionFailure() << "block " << b << " doesn't start where block " << b - 1 << " ended";
    for (std::size_t i = 0; i < block.tags.size(); ++i) {
      const Tag &tag = block.tags[i];
      if (tag.time < last)
        return ::testing::AssertionFailure() << "block " << b << " tag " << i << " " << describe(tag)
                                             << " is earlier than the tag before it, at " << last;
      if (tag.time > block.end_time)
        return ::testing::AssertionFailure() << "block " << b << " tag " << i << " " << describe(tag)
                                             << " lies beyond the block's end " << block.end_time;
      last = tag.time;
    }
  }
  return ::testing::AssertionSuccess();
}

// Same tags in the same order, compared field by field.
inline ::testing::AssertionResult sameTags(const std::vector<Tag> &expected, const std::vector<Tag> &actual) {
  std::size_t n = std::min(expected.size(), actual.size());
  for (std::size_t i = 0; i < n; ++i) {
    const Tag &e = expected[i];
    const Tag &a = actual[i];
    if (e.type != a.type || e.channel != a.channel || e.time != a.time || e.missed_events != a.missed_events)
      return ::testing::AssertionFailure()
             << "first difference at " << i << ": expected " << describe(e) << ", got " << describe(a);
  }
  if (expected.size() != actual.size())
    return ::testing::AssertionFailure() << "expected " << expected.size() << " tags, got " << actual.size();
  return ::testing::AssertionSuccess();
}

// The cut sets that every reference check runs: one block, a few random
// blocks, and many small ones with empty blocks among them.
inline std::vector<std::vector<std::size_t>> cutSets(std::size_t n_tags, std::uint64_t seed) {
  return {{}, randomCuts(n_tags, 25, seed), randomCuts(n_tags, n_tags / 6, seed + 1)};
}

// Pushes `stream` cut at `cuts` through a fresh tagger with the channel that
// `build` makes and a recorder after it; returns what the recorder saw.
inline std::vector<OutputRecorder::Block>
runThrough(const std::vector<Tag> &stream, const std::vector<std::size_t> &cuts, std::int64_t end_time,
           const std::function<std::shared_ptr<IteratorBase>(TestTagger &)> &build) {
  TestTagger tagger;
  std::shared_ptr<IteratorBase> channel = build(tagger);
  OutputRecorder recorder(&tagger);
  std::int64_t begin_time = stream.empty() ? 0 : stream.front().time - 1;
  tagger.pushCut(stream, cuts, begin_time, end_time);
  tagger.waitUntilDone();
  std::vector<OutputRecorder::Block> blocks = recorder.blocks();
  EXPECT_EQ(blocks.size(), cuts.size() + 1) << "every pushed block reaches the recorder";
  return blocks;
}

inline std::vector<Tag> joined(const std::vector<OutputRecorder::Block> &blocks) {
  std::vector<Tag> all;
  for (const auto &block : blocks)
    all.insert(all.end(), block.tags.begin(), block.tags.end());
  return all;
}

} // namespace chronotick::testing::vcheck
