#include "simulation/StreamGenerator.h"

#include "device/BoardProtocol.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <functional>

namespace chronotick::simulation {
namespace {

using board::rawWord;

// Independent random streams of one board: the delay lines stay the same
// across firmware loads, the signals start afresh with each.
std::uint64_t streamSeed(std::uint64_t seed, std::uint64_t stream) {
  std::uint64_t state = seed ^ (stream * 0xD1B54A32D192ED03ull);
  return splitMix(state);
}

std::int64_t ps(double value) {
  return static_cast<std::int64_t>(value + (value < 0 ? -0.5 : 0.5));
}

} // namespace

StreamGenerator::StreamGenerator(int inputs_, std::int64_t period_ps_, int bins, std::uint64_t seed, std::uint64_t run)
    : inputs(inputs_), period_ps(period_ps_), in(static_cast<std::size_t>(inputs_)),
      slots(static_cast<std::size_t>(2 * inputs_)) {
  for (int i = 0; i < inputs; ++i) {
    lines.emplace_back(period_ps, bins, streamSeed(seed, 1 + std::uint64_t(i)));
    in[std::size_t(i)].random = Random(streamSeed(seed, (run << 16) + 1000 + std::uint64_t(i)));
  }
}

void StreamGenerator::setSignal(int input, const Signal &signal) {
  Input &p = in[std::size_t(input)];
  p.signal = signal;
  p.restart = true;
}

void StreamGenerator::generate(const StreamSettings &settings, std::vector<std::uint32_t> &out) {
  const std::int64_t end = period_begin + span();

  // Sources before the inputs that follow their pulses; a circle of
  // followers has no pulses.
  order.clear();
  placed.assign(std::size_t(inputs), 0);
  for (bool progress = true; progress;) {
    progress = false;
    for (int i = 0; i < inputs; ++i) {
      const Signal &s = in[std::size_t(i)].signal;
      const bool follower = s.kind == Signal::Kind::Copy || s.kind == Signal::Kind::Fluorescence;
      if (!placed[std::size_t(i)] && (!follower || placed[std::size_t(s.source)])) {
        placed[std::size_t(i)] = 1;
        order.push_back(i);
        progress = true;
      }
    }
  }
  for (int i = 0; i < inputs; ++i)
    in[std::size_t(i)].pulses.clear();
  for (int i : order)
    makePulses(i, end);

  test_pulses.clear();
  if (settings.test_period_ps > 0) {
    const std::int64_t p = settings.test_period_ps;
    for (std::int64_t t = (period_begin + p - 1) / p * p; t < end; t += p)
      test_pulses.push_back(t);
  }

  for (int i = 0; i < inputs; ++i)
    makeEvents(settings, i, end);

  const std::size_t before = out.size();
  emitEvents(settings, out);

  if (clock_lost) {
    // Stands in for this period's roll-over.
    flushIdle(settings, out);
    out.push_back(rawWord(1, board::CODE_CONTROL, 0, 0));
    clock_lost = false;
  } else if (out.size() != before) {
    out.push_back(rawWord(1, board::CODE_ROLLOVER, settings.fence, 0));
  } else if (++idle_periods == 65536) {
    flushIdle(settings, out);
  }
  period_begin = end;
}

void StreamGenerator::flushIdle(const StreamSettings &settings, std::vector<std::uint32_t> &out) {
  if (idle_periods == 0)
    return;
  // All but the last as a count; the last carries the fence echo.
  const std::uint32_t counted = idle_periods - 1;
  if (counted >> 8)
    out.push_back(rawWord(3, board::CODE_ROLLOVER, counted >> 8, 0));
  if (counted & 255)
    out.push_back(rawWord(2, board::CODE_ROLLOVER, counted & 255, 0));
  out.push_back(rawWord(1, board::CODE_ROLLOVER, settings.fence, 0));
  idle_periods = 0;
}

void StreamGenerator::makePulses(int input, std::int64_t end) {
  Input &p = in[std::size_t(input)];
  const Signal &s = p.signal;
  const std::int64_t begin = period_begin;
  if (p.restart) {
    p.late.clear();
    p.restart = false;
    if (s.kind == Signal::Kind::Poisson && s.rate > 0)
      p.next = begin + ps(p.random.exponential() * 1e12 / s.rate);
    if (s.kind == Signal::Kind::Periodic)
      p.next = begin + ps(p.random.uniform() * double(s.period));
  }
  std::vector<std::int64_t> &pulses = p.pulses;
  const auto later = std::greater<std::int64_t>();
  const auto place = [&](std::int64_t t) {
    if (t < end) {
      pulses.push_back(t);
    } else {
      p.late.push_back(t);
      std::push_heap(p.late.begin(), p.late.end(), later);
    }
  };
  bool ordered = true;
  switch (s.kind) {
  case Signal::Kind::Off:
    break;
  case Signal::Kind::Poisson:
    if (s.rate > 0) {
      const double mean = 1e12 / s.rate;
      while (p.next < end) {
        pulses.push_back(p.next);
        p.next += std::max<std::int64_t>(1, ps(p.random.exponential() * mean));
      }
    }
    break;
  case Signal::Kind::Periodic:
    for (; p.next < end; p.next += s.period) {
      std::int64_t t = p.next;
      if (s.jitter > 0)
        t += ps(p.random.gaussian() * double(s.jitter));
      place(std::max(t, begin));
    }
    ordered = s.jitter == 0;
    break;
  case Signal::Kind::Copy:
    for (std::int64_t t : in[std::size_t(s.source)].pulses) {
      std::int64_t copy = t + s.delay;
      if (s.jitter > 0)
        copy += ps(p.random.gaussian() * double(s.jitter));
      place(std::max(copy, t)); // a follower never comes before its cause
    }
    ordered = s.jitter == 0;
    break;
  case Signal::Kind::Fluorescence:
    for (std::int64_t t : in[std::size_t(s.source)].pulses) {
      if (p.random.uniform() < s.probability)
        place(std::max(t, t + s.delay + ps(p.random.exponential() * double(s.lifetime))));
    }
    ordered = false;
    break;
  }
  while (!p.late.empty() && p.late.front() < end) {
    pulses.push_back(p.late.front());
    std::pop_heap(p.late.begin(), p.late.end(), later);
    p.late.pop_back();
    ordered = false;
  }
  if (!ordered)
    std::sort(pulses.begin(), pulses.end());
}

void StreamGenerator::makeEvents(const StreamSettings &settings, int input, std::int64_t end) {
  const SlotSettings &rise_cfg = settings.slots[2 * std::size_t(input)];
  const SlotSettings &fall_cfg = settings.slots[2 * std::size_t(input) + 1];
  Slot &rise = slots[2 * std::size_t(input)];
  Slot &fall = slots[2 * std::size_t(input) + 1];
  rise.events.clear();
  fall.events.clear();
  if (!fall_cfg.enabled)
    fall.late.clear();
  if (!rise_cfg.enabled && !fall_cfg.enabled)
    return;

  const int mux = rise_cfg.mux ? rise_cfg.mux : fall_cfg.mux;
  const std::vector<std::int64_t> *pulses = &test_pulses;
  std::int64_t width = settings.test_high_ps > 0 ? settings.test_high_ps : settings.test_period_ps / 2;
  bool visible = true; // the test signal enters behind the comparators
  if (mux != 3) {
    const int source = mux == 1 ? (input + inputs - 1) % inputs : mux == 2 ? (input + 1) % inputs : input;
    const Signal &s = in[std::size_t(source)].signal;
    const double threshold = settings.thresholds[std::size_t(input)];
    visible = s.kind != Signal::Kind::Off && threshold > 0 && threshold < s.amplitude;
    pulses = &in[std::size_t(source)].pulses;
    width = s.width;
  }

  const auto detect = [this](Slot &slot, const SlotSettings &cfg, std::int64_t t) {
    if (slot.detected_any && t - slot.last_detected < std::int64_t(cfg.deadtime_cycles) * period_ps)
      return;
    slot.last_detected = t;
    slot.detected_any = true;
    const bool keep = slot.divided == 0;
    slot.divided = slot.divided >= cfg.divider ? 0 : slot.divided + 1;
    if (keep)
      slot.events.push_back(t);
  };

  if (rise_cfg.enabled && visible) {
    for (std::int64_t t : *pulses)
      detect(rise, rise_cfg, t);
  }
  if (fall_cfg.enabled) {
    // Falling edges carried over from the last period first; a width changed
    // under way can interleave them with this period's.
    edges.clear();
    std::size_t due = 0;
    while (due < fall.late.size() && fall.late[due] < end)
      edges.push_back(fall.late[due++]);
    fall.late.erase(fall.late.begin(), fall.late.begin() + std::ptrdiff_t(due));
    if (visible) {
      for (std::int64_t t : *pulses)
        (t + width < end ? edges : fall.late).push_back(t + width);
    }
    if (!std::is_sorted(edges.begin(), edges.end()))
      std::sort(edges.begin(), edges.end());
    if (!std::is_sorted(fall.late.begin(), fall.late.end()))
      std::sort(fall.late.begin(), fall.late.end());
    for (std::int64_t t : edges)
      detect(fall, fall_cfg, t);
  }
}

void StreamGenerator::drain(const StreamSettings &settings, std::int64_t t, std::vector<std::uint32_t> &out) {
  fill = std::max(0.0, fill - double(t - fill_time) * settings.words_per_second * 1e-12);
  fill_time = t;
  if (!overflow || fill > settings.resume_events)
    return;
  const std::uint32_t coarse = coarseOf(t);
  for (std::size_t s = 0; s < slots.size(); ++s) {
    const std::uint64_t missed = slots[s].missed;
    for (std::uint64_t high = missed >> 8; high > 0;) {
      const std::uint64_t part = std::min<std::uint64_t>(high, 255);
      out.push_back(rawWord(3, std::uint32_t(s), std::uint32_t(part), coarse));
      high -= part;
    }
    if (missed & 255)
      out.push_back(rawWord(2, std::uint32_t(s), std::uint32_t(missed & 255), coarse));
    slots[s].missed = 0;
  }
  out.push_back(rawWord(3, board::CODE_CONTROL, 0, coarse));
  overflow = false;
}

// Stable sort on the coarse field (the low 16 bits), two bytes of radix: the
// words need coarse order only, and this keeps the cost per word flat however
// many slots are busy.
void StreamGenerator::sortByCoarse() {
  std::array<std::uint32_t, 256> low{}, high{};
  for (std::uint32_t w : words) {
    ++low[w & 255];
    ++high[w >> 8 & 255];
  }
  std::uint32_t sum_low = 0, sum_high = 0;
  for (std::size_t i = 0; i < 256; ++i) {
    const std::uint32_t l = low[i], h = high[i];
    low[i] = sum_low, high[i] = sum_high;
    sum_low += l, sum_high += h;
  }
  sorted.resize(words.size());
  for (std::uint32_t w : words)
    sorted[low[w & 255]++] = w;
  for (std::uint32_t w : sorted)
    words[high[w >> 8 & 255]++] = w;
}

void StreamGenerator::emitEvents(const StreamSettings &settings, std::vector<std::uint32_t> &out) {
  words.clear();
  int busy = 0;
  // within / period as a multiplication, exact for within < 2^29 and period <= 2^13.
  const std::uint64_t magic = ((std::uint64_t(1) << 42) + std::uint64_t(period_ps) - 1) / std::uint64_t(period_ps);
  const auto period = static_cast<std::uint32_t>(period_ps);
  for (std::size_t s = 0; s < slots.size(); ++s) {
    if (slots[s].events.empty())
      continue;
    ++busy;
    const DelayLine &line = lines[s / 2];
    const std::uint32_t event = rawWord(1, std::uint32_t(s), 0, 0);
    for (std::int64_t t : slots[s].events) {
      const auto within = static_cast<std::uint32_t>(t - period_begin);
      const auto coarse = static_cast<std::uint32_t>((within * magic) >> 42);
      words.push_back(event | std::uint32_t(line.binOf(within - coarse * period)) << 16 | coarse);
    }
  }
  if (words.empty() && !overflow)
    return;
  if (busy > 1)
    sortByCoarse();
  flushIdle(settings, out);
  drain(settings, period_begin, out);
  out.reserve(out.size() + words.size() + 2);

  // The hardware buffer, drained at the link's bandwidth. A period that can't
  // fill it goes through whole, the buffer taken as draining evenly over it.
  const double words_per_ps = settings.words_per_second * 1e-12;
  if (!overflow && fill + double(words.size()) <= settings.buffer_events) {
    out.insert(out.end(), words.begin(), words.end());
    const std::int64_t end = period_begin + span();
    fill = std::max(0.0, fill + double(words.size()) - double(end - fill_time) * words_per_ps);
    fill_time = end;
    return;
  }
  for (std::uint32_t w : words) {
    const std::uint32_t coarse = w & 0xFFFF;
    const std::int64_t t = period_begin + std::int64_t(coarse) * period_ps;
    fill = std::max(0.0, fill - double(t - fill_time) * words_per_ps);
    fill_time = t;
    if (overflow && fill <= settings.resume_events)
      drain(settings, t, out);
    if (!overflow && fill + 1 > settings.buffer_events) {
      overflow = true;
      out.push_back(rawWord(2, board::CODE_CONTROL, 0, coarse));
    }
    if (overflow) {
      ++slots[w >> 24 & 63].missed;
      continue;
    }
    fill += 1;
    out.push_back(w);
  }
}

} // namespace chronotick::simulation
