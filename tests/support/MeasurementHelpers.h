#pragma once

// Helpers shared by the measurement tests: reading the allocator-style
// getters, runs of a tag stream through a fresh tagger, and bin widths that
// put the binner into a chosen mode.

#include <chronotick/FastBinning.h>
#include <chronotick/Tag.h>

#include "support/RandomTagStreams.h"
#include "support/TestTagger.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <functional>
#include <numeric>
#include <stdexcept>
#include <string>
#include <vector>

namespace chronotick::testing {

inline Tag tt(std::int32_t channel, std::int64_t time) {
  return makeTag(channel, time);
}

// Reads one of the getters that ask for a buffer: fetch(h, &Histogram::getData).
// The buffer is pre-filled with -7 so that cells left unwritten show.
template <class M, class C, class T, class... Dims>
std::vector<T> fetch(M &m, void (C::*get)(std::function<T *(Dims...)>), std::vector<std::size_t> *shape = nullptr) {
  std::vector<T> out;
  (m.*get)([&](Dims... dims) {
    out.assign((std::size_t(1) * ... * dims), T(-7));
    if (shape)
      *shape = {dims...};
    return out.data();
  });
  return out;
}

template <class T> std::int64_t total(const std::vector<T> &v) {
  return std::accumulate(v.begin(), v.end(), std::int64_t(0));
}

// The message of the invalid_argument that `make` throws, "" if none.
template <class F> std::string messageOf(F make) {
  try {
    make();
  } catch (const std::invalid_argument &e) {
    return e.what();
  }
  return "";
}

// Feeds `tags` to a fresh tagger in blocks cut at `cuts`, spanning
// [0, last tag + 1], into an M built from `args`, and returns read(m).
template <class M, class Read, class... Args>
auto runCut(const std::vector<Tag> &tags, const std::vector<std::size_t> &cuts, Read read, Args... args) {
  TestTagger tagger;
  M m(&tagger, args...);
  tagger.pushCut(tags, cuts, 0, tags.back().time + 1);
  tagger.waitUntilDone();
  return read(m);
}

// The two ways every reference check feeds a stream: whole, and cut at random.
inline std::vector<std::vector<std::size_t>> cutSets(std::size_t n_tags, std::size_t n_cuts, std::uint64_t seed) {
  return {{}, randomCuts(n_tags, n_cuts, seed)};
}

// Smallest bin width from `from` (in steps of `step`) for which the binner
// over range(width) takes `mode`.
inline std::int64_t binwidthFor(FastBinning::Mode mode, const std::function<std::uint64_t(std::int64_t)> &range,
                                std::int64_t from, std::int64_t step = 1) {
  for (std::int64_t bw = from; bw < from + 100000 * step; bw += step)
    if (FastBinning(static_cast<std::uint64_t>(bw), range(bw)).getMode() == mode)
      return bw;
  ADD_FAILURE() << "no binwidth for mode " << static_cast<int>(mode);
  return from;
}

} // namespace chronotick::testing
