#include "replay/ChannelEmulator.h"

#include <algorithm>
#include <cmath>
#include <stdexcept>

namespace chronotick {

namespace {
// std::push_heap builds a max-heap; this order makes it a min-heap by time.
bool laterTag(const Tag &a, const Tag &b) {
  return a.time > b.time;
}
} // namespace

ChannelEmulator::ChannelEmulator() : rng(std::random_device{}()) {}

ChannelEmulator::ChannelEmulator(std::uint32_t seed) : rng(seed) {}

ChannelEmulation &ChannelEmulator::pendingEntry(std::int32_t channel) {
  return pending[channel];
}

void ChannelEmulator::dropIfDefault(std::int32_t channel) {
  auto it = pending.find(channel);
  if (it != pending.end() && it->second.isDefault())
    pending.erase(it);
}

void ChannelEmulator::setInputDelay(std::int32_t channel, std::int64_t delay) {
  std::lock_guard<std::mutex> guard(settings_mutex);
  pendingEntry(channel).input_delay = delay;
  dropIfDefault(channel);
  changed = true;
}

std::int64_t ChannelEmulator::getInputDelay(std::int32_t channel) {
  std::lock_guard<std::mutex> guard(settings_mutex);
  auto it = pending.find(channel);
  return it == pending.end() ? 0 : it->second.input_delay;
}

std::int64_t ChannelEmulator::setDeadtime(std::int32_t channel, std::int64_t deadtime) {
  if (deadtime < 0)
    throw std::invalid_argument("negative deadtimes are not supported");
  std::lock_guard<std::mutex> guard(settings_mutex);
  pendingEntry(channel).deadtime = deadtime;
  dropIfDefault(channel);
  changed = true;
  return deadtime;
}

std::int64_t ChannelEmulator::getDeadtime(std::int32_t channel) {
  std::lock_guard<std::mutex> guard(settings_mutex);
  auto it = pending.find(channel);
  return it == pending.end() ? 0 : it->second.deadtime;
}

void ChannelEmulator::setTestSignal(const std::vector<std::int32_t> &channels, bool enable) {
  std::lock_guard<std::mutex> guard(settings_mutex);
  for (std::int32_t channel : channels) {
    const std::int32_t rising = channel < 0 ? -channel : channel;
    ChannelEmulation &up = pendingEntry(rising);
    up.test_signal = enable;
    up.rising_edge = true;
    dropIfDefault(rising);
    ChannelEmulation &down = pendingEntry(-rising);
    down.test_signal = enable;
    down.rising_edge = false;
    dropIfDefault(-rising);
  }
  changed = true;
}

bool ChannelEmulator::getTestSignal(std::int32_t channel) {
  std::lock_guard<std::mutex> guard(settings_mutex);
  auto it = pending.find(channel);
  return it != pending.end() && it->second.test_signal;
}

void ChannelEmulator::applySettings() {
  if (!changed.load(std::memory_order_acquire))
    return;
  std::lock_guard<std::mutex> guard(settings_mutex);
  changed = false;
  active = pending;
  any_test_signal = false;
  largest_delay = 0;
  smallest_delay = 0;
  for (const auto &[channel, emulation] : active) {
    any_test_signal = any_test_signal || emulation.test_signal;
    largest_delay = std::max(largest_delay, emulation.input_delay);
    smallest_delay = std::min(smallest_delay, emulation.input_delay);
  }
}

void ChannelEmulator::pushHeap(const Tag &tag) {
  heap.push_back(tag);
  std::push_heap(heap.begin(), heap.end(), laterTag);
}

void ChannelEmulator::flush(std::int64_t limit) {
  while (!heap.empty() && heap.front().time < limit) {
    std::pop_heap(heap.begin(), heap.end(), laterTag);
    Tag tag = heap.back();
    heap.pop_back();
    if (tag.type == Tag::Type::OverflowEnd)
      overflow = false;
    if (overflow && tag.type == Tag::Type::TimeTag) {
      tag.type = Tag::Type::MissedEvents;
      tag.missed_events = 1;
    }
    output.push_back(tag);
  }
}

void ChannelEmulator::generate(std::int64_t limit) {
  while (any_test_signal && next_test_time < limit) {
    flush(next_test_time);
    for (auto &[channel, emulation] : active) {
      if (!emulation.test_signal || emulation.rising_edge != phase)
        continue;
      const auto jitter = static_cast<std::int64_t>(std::abs(emulation.jitter(rng)));
      // Shifted like every other tag, so that a negative delay can't put an edge before what is already out.
      pushHeap(
          Tag{Tag::Type::TimeTag, 0, 0, channel, next_test_time + emulation.input_delay - smallest_delay + jitter});
    }
    next_test_time += static_cast<std::int64_t>(std::abs(half_period(rng)));
    phase = !phase;
  }
  flush(limit);
}

void ChannelEmulator::process(std::vector<Tag> &tags, std::int64_t begin_time, std::int64_t end_time) {
  if (heap.empty() && active.empty() && !overflow) {
    test_running = false;
    return;
  }
  if (!any_test_signal) {
    test_running = false;
  } else if (!test_running) {
    test_running = true;
    next_test_time = begin_time;
  }

  output.clear();
  for (const Tag &tag : tags) {
    // A negative delay stays causal by delaying everything else.
    std::int64_t t = tag.time - smallest_delay;
    switch (tag.type) {
    case Tag::Type::TimeTag: {
      auto it = active.find(tag.channel);
      if (it != active.end()) {
        ChannelEmulation &emulation = it->second;
        if (emulation.test_signal)
          continue; // the test signal replaces the input
        t += emulation.input_delay;
        if (emulation.last_valid && t - emulation.last_accepted < emulation.deadtime)
          continue;
        emulation.last_accepted = t;
        emulation.last_valid = true;
      }
      break;
    }
    case Tag::Type::OverflowEnd:
      t += largest_delay; // after everything that was held back
      break;
    case Tag::Type::OverflowBegin:
      overflow = true;
      break;
    case Tag::Type::Error:
      for (auto &entry : active)
        entry.second.last_valid = false;
      break;
    default:
      break;
    }
    generate(tag.time + 1);
    if (t == tag.time && !overflow) {
      output.push_back(tag);
    } else {
      Tag held = tag;
      held.time = t;
      pushHeap(held);
    }
  }
  generate(end_time);
  tags.swap(output);
  output.clear();
}

} // namespace chronotick
