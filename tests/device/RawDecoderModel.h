#pragma once

// A deliberately plain decoder of raw board words for the tests: ordered
// multimaps instead of heaps, one word at a time, no attempt at speed. Times
// in the tests stay far from 64-bit wrap, so plain comparisons do.

#include <chronotick/Tag.h>

#include <algorithm>
#include <cstdint>
#include <map>
#include <vector>

namespace chronotick::testing {

struct ModelBoard {
  std::int64_t period = 0;
  int bins = 0;
  int slots = 0;
  std::vector<std::int32_t> channels;
  std::vector<std::vector<std::uint32_t>> counts; // [slot][bin]
  std::vector<std::vector<std::uint32_t>> starts; // [slot][bin], bins + 1 entries
  std::vector<std::int64_t> delays;

  std::int64_t base = 0;
  std::int64_t watermark = 0;
  std::uint64_t rng = 1;
  std::uint64_t open = 0;
  bool in_overflow = false;
  std::int64_t overflow_count = 0;
  std::int32_t fence = 0;

  struct Held {
    Tag tag;
    int slot;
    int bin;
  };
  std::multimap<std::int64_t, Held> pending;
  std::multimap<std::int64_t, Tag> sorted;

  ModelBoard(std::int64_t period_ps, int bin_count, int slot_count)
      : period(period_ps), bins(bin_count), slots(slot_count), channels(std::size_t(slot_count)),
        counts(std::size_t(slot_count), std::vector<std::uint32_t>(std::size_t(bin_count))),
        starts(std::size_t(slot_count), std::vector<std::uint32_t>(std::size_t(bin_count) + 1)),
        delays(std::size_t(slot_count)) {
    for (int s = 0; s < slots; ++s)
      channels[std::size_t(s)] = 100 + s;
  }

  void rebuild(bool normalization) {
    for (int s = 0; s < slots; ++s) {
      auto &c = counts[std::size_t(s)];
      auto &st = starts[std::size_t(s)];
      std::uint64_t sum = 0;
      for (std::uint32_t n : c)
        sum += n;
      std::uint64_t below = 0;
      for (int i = 0; i < bins; ++i) {
        if (sum <= 10000)
          st[std::size_t(i)] =
              std::uint32_t(std::uint64_t(period) * std::uint64_t(i) % (1ULL << 32)) / std::uint32_t(bins);
        else if (normalization)
          st[std::size_t(i)] = std::uint32_t(below * std::uint64_t(period) / sum);
        else
          st[std::size_t(i)] = std::uint32_t((c[std::size_t(i)] / 2 + below) * std::uint64_t(period) / sum);
        below += c[std::size_t(i)];
      }
      st[std::size_t(bins)] = std::uint32_t(period);
      if (sum > 1000000)
        for (std::uint32_t &n : c)
          n = std::uint32_t(std::uint64_t(n) * 9 / 10);
    }
  }

  void flush(std::int64_t t, std::uint64_t trigger, std::uint64_t filtered, std::vector<Tag> &out) {
    if (t < watermark)
      return; // the watermark never runs back
    watermark = t;
    while (!pending.empty() && pending.begin()->first < t) {
      Held held = pending.begin()->second;
      pending.erase(pending.begin());
      const std::uint64_t bit = 1ULL << held.slot;
      if (trigger & bit)
        open = ~0ULL;
      if (!(filtered & bit) || (open & bit)) {
        held.tag.time += delays[std::size_t(held.slot)];
        ++counts[std::size_t(held.slot)][std::size_t(held.bin)];
        sorted.emplace(held.tag.time, held.tag);
        open &= ~bit;
      }
    }
    while (!sorted.empty() && sorted.begin()->first < t) {
      Tag tag = sorted.begin()->second;
      sorted.erase(sorted.begin());
      if (tag.type == Tag::Type::OverflowEnd)
        in_overflow = false;
      if (in_overflow && tag.type == Tag::Type::TimeTag) {
        tag.type = Tag::Type::MissedEvents;
        tag.missed_events = 1;
      }
      out.push_back(tag);
    }
  }

  // One block; pending delays take effect here, as in the decoder.
  std::vector<Tag> decode(const std::vector<std::uint32_t> &words, bool normalization, std::uint64_t trigger,
                          std::uint64_t filtered, std::uint32_t current_fence) {
    rebuild(normalization);
    std::int64_t max_delay = 0;
    for (std::int64_t d : delays)
      max_delay = d > max_delay ? d : max_delay;
    std::vector<Tag> out;
    for (std::uint32_t w : words) {
      const int kind = int(w >> 30);
      const int code = int((w >> 24) & 63);
      const int payload = int((w >> 16) & 255);
      const std::int64_t coarse = w & 0xFFFF;
      if (kind == 0)
        continue;
      if (code < 58 && kind == 1) {
        const auto &st = starts[std::size_t(code)];
        std::int64_t time = base + coarse * period + st[std::size_t(payload)];
        if (normalization) {
          rng ^= rng >> 12;
          rng ^= rng << 25;
          rng ^= rng >> 27;
          const std::uint64_t r = (rng * 0x2545F4914F6CDD1DULL) >> 32;
          const std::uint64_t width = st[std::size_t(payload) + 1] - st[std::size_t(payload)];
          time += std::int64_t((width * r) >> 32);
        }
        const std::int64_t t = base + coarse * period;
        if (t < watermark)
          continue;
        if (t != watermark)
          flush(t, trigger, filtered, out);
        Tag tag{Tag::Type::TimeTag, 0, 0, channels[std::size_t(code)], time};
        if (filtered == 0) {
          ++counts[std::size_t(code)][std::size_t(payload)];
          tag.time += delays[std::size_t(code)];
          sorted.emplace(tag.time, tag);
        } else {
          pending.emplace(tag.time, Held{tag, code, payload});
        }
      } else if (code < 58) {
        const auto n = std::uint16_t(kind == 2 ? payload : payload * 256);
        sorted.emplace(watermark, Tag{Tag::Type::MissedEvents, 0, n, channels[std::size_t(code)], watermark});
      } else if (code == 62) {
        const std::int64_t periods = kind == 1 ? 1 : kind == 2 ? payload : payload * 256;
        base += periods * period * 65536;
        if (kind == 1)
          fence =
              std::int32_t(current_fence +
                           std::uint32_t(std::int32_t(std::int8_t(std::uint8_t(payload - int(current_fence & 255))))));
        flush(base, trigger, filtered, out);
      } else if (code == 63) {
        if (kind == 1) {
          pending.clear();
          sorted.clear();
          base += period * 65536;
        }
        const std::int64_t t = std::max(base + coarse * period, watermark);
        flush(t, trigger, filtered, out);
        if (kind == 2)
          in_overflow = true;
        const Tag::Type type = kind == 1   ? Tag::Type::Error
                               : kind == 2 ? Tag::Type::OverflowBegin
                                           : Tag::Type::OverflowEnd;
        const std::int64_t at = kind == 3 ? t + max_delay : t;
        sorted.emplace(at, Tag{type, 0, 0, CHANNEL_UNUSED, at});
        if (kind != 3)
          ++overflow_count;
        open = 0;
      }
    }
    return out;
  }
};

} // namespace chronotick::testing
