#pragma once

// A worker samples the fence before it takes a block from the queue, so a
// block pushed right after a measurement was started can still carry the
// fence from before the start and be ignored by it. Pushing one empty block
// through the chain flushes such a stale read: blocks pushed after this call
// carry every fence taken before it.

#include "support/TestTagger.h"

namespace chronotick::testing {

inline void settleFences(TestTagger &tagger) {
  const std::int64_t t = tagger.lastEndTime();
  tagger.pushAndWait({}, t, t);
}

} // namespace chronotick::testing
