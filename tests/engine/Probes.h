#pragma once

// Small iterators that let engine tests watch and steer the chain (and the
// recorder of support/VirtualChannelChecks.h).

#include <chronotick/IteratorBase.h>

#include "support/VirtualChannelChecks.h"

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <stdexcept>
#include <vector>

namespace probes {

using chronotick::Tag;

inline Tag tag(std::int32_t channel, std::int64_t time, Tag::Type type = Tag::Type::TimeTag) {
  return chronotick::testing::makeTag(channel, time, type);
}

using Recorder = chronotick::testing::BlockRecorder;

// A virtual channel in miniature: appends a copy of every tag on `channel`
// `shift` ps later (kept in order) on `output`, and says it changed the block.
class Shifter : public chronotick::IteratorBase {
public:
  Shifter(chronotick::ChronotickBase *tagger, std::int32_t output_) : IteratorBase(tagger), output(output_) {
    finishInitialization();
  }
  ~Shifter() override { stop(); }

protected:
  bool next_impl(std::vector<Tag> &tags, std::int64_t, std::int64_t) override {
    out.clear();
    for (const Tag &t : tags) {
      out.push_back(t);
      if (t.type == Tag::Type::TimeTag && t.channel != output)
        out.push_back(tag(output, t.time));
    }
    tags.swap(out);
    return true;
  }

private:
  std::int32_t output;
  std::vector<Tag> out;
};

// Blocks every worker that reaches it until opened; tells when one waits.
class Gate : public chronotick::IteratorBase {
public:
  explicit Gate(chronotick::ChronotickBase *tagger) : IteratorBase(tagger) { finishInitialization(); }
  ~Gate() override {
    open();
    stop();
  }
  void open() {
    std::lock_guard<std::mutex> g(m);
    is_open = true;
    cv.notify_all();
  }
  bool waitUntilHeld(std::chrono::milliseconds limit = std::chrono::seconds(10)) {
    std::unique_lock<std::mutex> g(m);
    return cv.wait_for(g, limit, [this] { return held > 0; });
  }

protected:
  bool next_impl(std::vector<Tag> &, std::int64_t, std::int64_t) override {
    std::unique_lock<std::mutex> g(m);
    ++held;
    cv.notify_all();
    cv.wait(g, [this] { return is_open; });
    return false;
  }

private:
  std::mutex m;
  std::condition_variable cv;
  int held = 0;
  bool is_open = false;
};

} // namespace probes
