#pragma once

// A measurement for tests of virtual channels: built after them, it records
// every tag it is given and checks that the stream stays in time order
// within and across blocks, and that no tag lies after its block's end.

#include <chronotick/IteratorBase.h>
#include <chronotick/Tag.h>

#include <cstdint>
#include <vector>

namespace chronotick::testing {

class BlockRecorder : public IteratorBase {
public:
  explicit BlockRecorder(ChronotickBase *tagger) : IteratorBase(tagger) { finishInitialization(); }
  ~BlockRecorder() override { stop(); }

  std::vector<Tag> tags() {
    auto lk = getLock();
    return recorded;
  }
  // Tags that came earlier than the tag before them.
  std::uint64_t outOfOrder() {
    auto lk = getLock();
    return out_of_order;
  }
  // Tags later than the end of their block.
  std::uint64_t pastBlockEnd() {
    auto lk = getLock();
    return past_end;
  }

protected:
  bool next_impl(std::vector<Tag> &block, std::int64_t, std::int64_t end_time) override {
    for (const Tag &tag : block) {
      if (!recorded.empty() && tag.time < recorded.back().time)
        ++out_of_order;
      if (tag.time > end_time)
        ++past_end;
      recorded.push_back(tag);
    }
    return false;
  }

private:
  std::vector<Tag> recorded;
  std::uint64_t out_of_order = 0;
  std::uint64_t past_end = 0;
};

} // namespace chronotick::testing
#include "support/TestTagger.h"

#include <utility>

namespace chronotick::testing {

struct RecordedRun {
  std::vector<Tag> tags;
  std::uint64_t out_of_order = 0;
  std::uint64_t past_block_end = 0;
};

// Builds the chain under test with build(tagger) (which returns an owner of
// it), a recorder behind it, pushes `stream` cut into blocks at `cuts` over
// [0, end_time], and returns what the recorder saw.
template <typename Build>
RecordedRun recordThrough(Build build, const std::vector<Tag> &stream, const std::vector<std::size_t> &cuts,
                          std::int64_t end_time) {
  TestTagger tagger;
  auto chain = build(tagger);
  BlockRecorder recorder(&tagger);
  tagger.pushCut(stream, cuts, 0, end_time);
  tagger.waitUntilDone();
  RecordedRun run;
  run.tags = recorder.tags();
  run.out_of_order = recorder.outOfOrder();
  run.past_block_end = recorder.pastBlockEnd();
  return run;
}

} // namespace chronotick::testing
