#include "device/RawDecoder.h"

#include "device/BoardProtocol.h"
#include "engine/Log.h"
#include "engine/Worker.h"

#include <algorithm>

namespace chronotick {

namespace {

// Times may wrap: sums wrap instead of overflowing, and every comparison is
// on the signed difference.
std::int64_t plus(std::int64_t a, std::int64_t b) {
  return std::int64_t(std::uint64_t(a) + std::uint64_t(b));
}
std::int64_t times(std::int64_t a, std::int64_t b) {
  return std::int64_t(std::uint64_t(a) * std::uint64_t(b));
}
bool before(std::int64_t a, std::int64_t b) {
  return std::int64_t(std::uint64_t(a) - std::uint64_t(b)) < 0;
}

// Comparators that make std::push_heap and std::pop_heap keep min-heaps.
struct LaterTag {
  bool operator()(const Tag &a, const Tag &b) const { return before(b.time, a.time); }
};
struct LaterPending {
  bool operator()(const PendingEvent &a, const PendingEvent &b) const { return before(b.tag.time, a.tag.time); }
};

Tag makeTag(Tag::Type type, std::int32_t channel, std::int64_t time, std::uint16_t missed = 0) {
  return Tag{type, 0, missed, channel, time};
}

constexpr std::uint32_t ROLLOVER = board::ROLLOVER_CYCLES;
// How far back a tag may be sorted into the run before it goes to the heap.
constexpr std::size_t MAX_SHIFT = 16;
// A run with this many released tags in front is compacted.
constexpr std::size_t COMPACT_AFTER = 4096;

} // namespace

// The hot fields live here rather than in the state, so that the compiler can
// keep them in registers.
class RawDecoder::Pass {
public:
  Pass(DeviceChannelState &state, const DecodeSettings &settings, Worker &worker)
      : state(state), settings(settings), out(worker.tags), incomplete(worker.incomplete),
        period(state.clock_period_ps), row(std::int64_t(state.bin_count) + 1), base(state.rollover_base),
        watermark(state.watermark), released(state.watermark), rng(state.rng_state), open(state.filter_open_mask),
        in_overflow(state.in_overflow), normalization(settings.normalization), filtering(settings.filtered_mask != 0),
        bins(state.fine_bins.data()), channels(state.slot_channels.data()), delays(state.active_delays.data()) {
    std::int64_t min_delay = 0;
    for (std::int64_t delay : state.active_delays) {
      max_delay = std::max(max_delay, delay);
      min_delay = std::min(min_delay, delay);
    }
    // Without the filter and without negative delays, tags released at
    // successive flushes come out in time order anyway, so the flushes of
    // events can wait for the next roll-over, mark or the end of the block
    // and release everything at once. A filter decision or a tag moved
    // before the watermark needs each flush at its moment.
    lazy = settings.filtered_mask == 0 && min_delay >= 0;
  }

  void finish() {
    if (before(released, watermark))
      release(watermark);
    state.rollover_base = base;
    state.watermark = watermark;
    state.rng_state = rng;
    state.filter_open_mask = open;
    state.in_overflow = in_overflow;
  }

  void run(const std::uint32_t *words, std::size_t count, std::uint32_t current_fence);

private:
  // `x` is the random state and `limits` the table's sizes, kept in locals of
  // run(): as members they would be read again after every tag stored.
  struct Limits {
    std::int32_t slots;
    std::int32_t bins;
  };
  [[gnu::always_inline]] inline void event(std::uint32_t code, std::uint32_t payload, std::uint32_t coarse,
                                           std::uint64_t &x, Limits limits);
  void missed(std::uint32_t kind, std::uint32_t code, std::uint32_t payload);
  void rollover(std::uint32_t kind, std::uint32_t payload, std::uint32_t current_fence);
  void control(std::uint32_t kind, std::uint32_t coarse);
  void flush(std::int64_t t);
  void release(std::int64_t t);
  void releasePending(std::int64_t t);
  [[gnu::always_inline]] inline void push(Tag::Type type, std::int32_t channel, std::int64_t time,
                                          std::uint16_t missed = 0);
  [[gnu::noinline]] void sortIn(const Tag &tag);
  [[gnu::always_inline]] inline void emit(Tag tag);

  bool waitingForSync() const { return state.is_sync_member && !state.resynchronized; }
  std::int64_t timeOf(std::uint32_t coarse) const { return plus(base, times(std::int64_t(coarse), period)); }

  DeviceChannelState &state;
  const DecodeSettings &settings;
  std::vector<Tag> &out;
  bool &incomplete;
  const std::int64_t period;
  const std::int64_t row; // fine bins per slot, with the sentinel
  std::int64_t max_delay = 0;
  std::int64_t base;
  std::int64_t watermark;
  std::int64_t released; // the watermark at the last release; behind the watermark while releases wait
  std::uint64_t rng;
  std::uint64_t open;
  bool in_overflow;
  bool lazy = false;
  // Fixed for the block; the vectors keep their sizes.
  const bool normalization;
  const bool filtering;
  FineBin *const bins;
  const std::int32_t *const channels;
  const std::int64_t *const delays;
};

void RawDecoder::Pass::event(std::uint32_t code, std::uint32_t payload, std::uint32_t coarse, std::uint64_t &x,
                             Limits limits) {
  if (waitingForSync()) {
    incomplete = true;
    return;
  }
  // Matching firmware sends neither; the table has no entry for them.
  if (std::int32_t(code) >= limits.slots || std::int32_t(payload) >= limits.bins)
    return;
  const std::int64_t t = timeOf(coarse);
  FineBin *bin = bins + (std::int64_t(payload) + std::int64_t(code) * row);
  std::int64_t time = plus(t, bin[0].start_ps);
  if (normalization) {
    // Drawn before the drop below, so that the sequence doesn't depend on it.
    x ^= x >> 12;
    x ^= x << 25;
    x ^= x >> 27;
    const std::uint64_t r = (x * 0x2545F4914F6CDD1DULL) >> 32;
    const std::uint32_t width = bin[1].start_ps - bin[0].start_ps;
    time = plus(time, std::int64_t((std::uint64_t(width) * r) >> 32));
  }
  if (before(t, watermark))
    return;
  if (lazy)
    watermark = t;
  else if (t != watermark)
    flush(t);
  if (!filtering) {
    ++bin[0].count;
    time = plus(time, delays[code]);
    push(Tag::Type::TimeTag, channels[code], time);
  } else {
    state.pending_heap.push_back(
        PendingEvent{makeTag(Tag::Type::TimeTag, state.slot_channels[code], time), payload, code});
    std::push_heap(state.pending_heap.begin(), state.pending_heap.end(), LaterPending{});
  }
}

void RawDecoder::Pass::missed(std::uint32_t kind, std::uint32_t code, std::uint32_t payload) {
  if (waitingForSync() || std::int32_t(code) >= state.slot_count)
    return;
  const auto lost = std::uint16_t(kind == 2 ? payload : payload << 8);
  push(Tag::Type::MissedEvents, state.slot_channels[code], watermark, lost);
}

void RawDecoder::Pass::rollover(std::uint32_t kind, std::uint32_t payload, std::uint32_t current_fence) {
  const std::int64_t one = times(period, ROLLOVER);
  if (kind == 1) {
    base = plus(base, one);
    // The board echoes the low byte of the fence; widen it around ours.
    const auto echo = std::int8_t(std::uint8_t((payload - current_fence) & 0xFF));
    state.fence = std::int32_t(current_fence + std::uint32_t(std::int32_t(echo)));
    checkSyncBoard(state);
  } else if (kind == 2) {
    base = plus(base, times(one, payload));
  } else {
    base = plus(base, times(one, std::int64_t(payload) << 8));
  }
  flush(base);
}

void RawDecoder::Pass::control(std::uint32_t kind, std::uint32_t coarse) {
  if (kind == 1) {
    // The clock was lost: nothing still pending can be trusted.
    if (before(released, watermark))
      release(watermark);
    state.pending_heap.clear();
    state.sort_heap.clear();
    if (state.resynchronized) {
      CT_ERROR("Error event received from %s, please make sure that the CLK is connected properly.",
               state.serial.c_str());
      state.resynchronized = false;
    }
    base = plus(base, times(period, ROLLOVER));
  }
  // A mark out of place in a damaged stream comes no earlier than what was
  // already released.
  std::int64_t t = timeOf(coarse);
  if (before(t, watermark))
    t = watermark;
  const Tag::Type type = kind == 1 ? Tag::Type::Error : kind == 2 ? Tag::Type::OverflowBegin : Tag::Type::OverflowEnd;
  Tag tag = makeTag(type, CHANNEL_UNUSED, t);
  flush(t);
  if (kind == 2)
    in_overflow = true;
  if (kind == 3)
    tag.time = plus(tag.time, max_delay); // after every delayed tag of the stretch
  push(tag.type, tag.channel, tag.time);
  if (kind != 3)
    ++state.overflow_count;
  open = 0;
}

void RawDecoder::Pass::flush(std::int64_t t) {
  // The watermark never runs back (a roll-over word of no length, a mark
  // out of place): tags already released must stay final and in order.
  if (before(t, watermark))
    return;
  watermark = t;
  release(t);
  released = t;
}

void RawDecoder::Pass::release(std::int64_t t) {
  if (!state.pending_heap.empty())
    releasePending(t);
  TagSorter &sorter = state.sort_heap;
  std::vector<Tag> &run = sorter.run;
  if (sorter.heap.empty()) {
    std::size_t end = sorter.head;
    while (end < run.size() && before(run[end].time, t))
      ++end;
    if (in_overflow) {
      while (sorter.head < end)
        emit(run[sorter.head++]);
    } else {
      // Out of overflow, nothing is released that changes a tag.
      out.insert(out.end(), run.begin() + std::ptrdiff_t(sorter.head), run.begin() + std::ptrdiff_t(end));
      sorter.head = end;
    }
  } else {
    while (true) {
      const bool from_run = sorter.head < run.size() && before(run[sorter.head].time, t);
      const bool from_heap = !sorter.heap.empty() && before(sorter.heap.front().time, t) &&
                             (!from_run || before(sorter.heap.front().time, run[sorter.head].time));
      if (from_heap) {
        std::pop_heap(sorter.heap.begin(), sorter.heap.end(), LaterTag{});
        emit(sorter.heap.back());
        sorter.heap.pop_back();
      } else if (from_run) {
        emit(run[sorter.head++]);
      } else {
        break;
      }
    }
  }
  if (sorter.head == run.size()) {
    run.clear();
    sorter.head = 0;
  } else if (sorter.head >= COMPACT_AFTER && sorter.head * 2 >= run.size()) {
    run.erase(run.begin(), run.begin() + std::ptrdiff_t(sorter.head));
    sorter.head = 0;
  }
}

void RawDecoder::Pass::emit(Tag tag) {
  if (tag.type == Tag::Type::OverflowEnd) {
    in_overflow = false;
  } else if (in_overflow && tag.type == Tag::Type::TimeTag) {
    tag.type = Tag::Type::MissedEvents;
    tag.missed_events = 1;
  }
  out.push_back(tag);
}

void RawDecoder::Pass::push(Tag::Type type, std::int32_t channel, std::int64_t time, std::uint16_t missed) {
  std::vector<Tag> &run = state.sort_heap.run;
  if (run.size() == state.sort_heap.head || !before(time, run.back().time)) {
    // Field by field into place: a whole Tag built on the stack first
    // would be read back before its parts had reached memory.
    Tag &tag = run.emplace_back();
    tag.type = type;
    tag.missed_events = missed;
    tag.channel = channel;
    tag.time = time;
  } else if (run.size() - state.sort_heap.head >= 2 && !before(time, run[run.size() - 2].time)) {
    // The common disorder: two events of one clock cycle in the wrong order.
    run.push_back(run.back());
    Tag &tag = run[run.size() - 2];
    tag.type = type;
    tag.missed_events = missed;
    tag.channel = channel;
    tag.time = time;
  } else {
    sortIn(makeTag(type, channel, time, missed));
  }
}

void RawDecoder::Pass::sortIn(const Tag &tag) {
  TagSorter &sorter = state.sort_heap;
  std::vector<Tag> &run = sorter.run;
  std::size_t at = run.size() - 1;
  const std::size_t stop = run.size() - std::min(run.size() - sorter.head, MAX_SHIFT);
  while (at > stop && before(tag.time, run[at - 1].time))
    --at;
  if (at > sorter.head && before(tag.time, run[at - 1].time)) {
    sorter.heap.push_back(tag);
    std::push_heap(sorter.heap.begin(), sorter.heap.end(), LaterTag{});
    return;
  }
  run.push_back(run.back());
  for (std::size_t i = run.size() - 2; i > at; --i)
    run[i] = run[i - 1];
  run[at] = tag;
}

void RawDecoder::Pass::run(const std::uint32_t *words, std::size_t count, std::uint32_t current_fence) {
  std::uint64_t x = rng;
  const Limits limits{state.slot_count, state.bin_count};
  for (std::size_t n = 0; n < count; ++n) {
    const std::uint32_t word = words[n];
    const std::uint32_t kind = word >> 30;
    if (kind == 0)
      continue; // idle, whatever the other bits hold
    const std::uint32_t code = (word >> 24) & 63;
    const std::uint32_t payload = (word >> 16) & 0xFF;
    const std::uint32_t coarse = word & 0xFFFF;
    if (code <= board::MAX_SLOT_CODE) {
      if (kind == 1)
        event(code, payload, coarse, x, limits);
      else
        missed(kind, code, payload);
    } else if (code == board::CODE_ROLLOVER) {
      rollover(kind, payload, current_fence);
    } else if (code == board::CODE_CONTROL) {
      control(kind, coarse);
    } else {
      state.heard_sync_board = true;
    }
  }
  rng = x;
}

// The exact conditional filter: each trigger opens every filtered slot for
// one event, decided in calibrated time before the delays apply.
void RawDecoder::Pass::releasePending(std::int64_t t) {
  std::vector<PendingEvent> &heap = state.pending_heap;
  while (!heap.empty() && before(heap.front().tag.time, t)) {
    std::pop_heap(heap.begin(), heap.end(), LaterPending{});
    PendingEvent pending = heap.back();
    heap.pop_back();
    const std::uint64_t bit = std::uint64_t(1) << pending.code;
    if (settings.trigger_mask & bit)
      open = ~std::uint64_t(0);
    if ((settings.filtered_mask & bit) == 0 || (open & bit) != 0) {
      pending.tag.time = plus(pending.tag.time, state.active_delays[pending.code]);
      ++state.fine_bins[std::size_t(std::int64_t(pending.payload) + std::int64_t(pending.code) * row)].count;
      push(pending.tag.type, pending.tag.channel, pending.tag.time);
      open &= ~bit;
    }
  }
}

void RawDecoder::rebuildFineBins(DeviceChannelState &state, bool normalization) {
  const std::int32_t bins = state.bin_count;
  const auto period = std::uint64_t(state.clock_period_ps);
  for (std::int32_t slot = 0; slot < state.slot_count; ++slot) {
    FineBin *bin = state.binsOf(slot);
    std::uint64_t sum = 0;
    for (std::int32_t i = 0; i < bins; ++i)
      sum += bin[i].count;
    std::uint64_t cumulative = 0;
    for (std::int32_t i = 0; i < bins; ++i) {
      std::uint64_t start;
      if (sum <= 10000)
        start = std::uint32_t(period * std::uint64_t(i)) / std::uint32_t(bins);
      else if (!normalization)
        start = ((bin[i].count >> 1) + cumulative) * period / sum; // the bin's centre
      else
        start = cumulative * period / sum; // its start: decode's random fraction fills the bin
      bin[i].start_ps = std::uint32_t(start);
      cumulative += bin[i].count;
    }
    bin[bins].start_ps = std::uint32_t(period);
    // Lets the table follow drift and keeps the counts from overflowing.
    if (sum > 1000000)
      for (std::int32_t i = 0; i < bins; ++i)
        bin[i].count = std::uint32_t(double(bin[i].count) * 0.9);
  }
}

void RawDecoder::decode(const std::uint32_t *words, std::size_t count, DeviceChannelState &state,
                        const DecodeSettings &settings, std::uint32_t current_fence, Worker &worker) {
  rebuildFineBins(state, settings.normalization);
  worker.tags.clear();
  worker.begin_time = state.watermark;
  worker.fence = std::uint32_t(state.fence);
  worker.incomplete = false;
  state.active_delays = state.pending_delays;
  state.active_delays.resize(std::size_t(state.slot_count), 0); // one per slot, whatever the upload left

  Pass pass(state, settings, worker);
  pass.run(words, count, current_fence);
  pass.finish();

  worker.end_time = state.watermark;
  if (state.is_sync_member && !state.resynchronized)
    worker.incomplete = true;
}

void RawDecoder::checkSyncBoard(DeviceChannelState &state) {
  if (!state.is_sync_member)
    return;
  if (state.resynchronized && !state.heard_sync_board) {
    CT_ERROR("Nothing received from the sync board between two rollover events. Is AUX IN 1 still connected to %s?",
             state.serial.c_str());
    state.resynchronized = false;
  }
  state.heard_sync_board = false;
}

} // namespace chronotick
