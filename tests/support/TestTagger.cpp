#include "TestTagger.h"

#include "engine/Log.h"

#include <algorithm>
#include <chrono>
#include <random>
#include <stdexcept>
#include <thread>
#include <utility>

namespace chronotick::testing {

TestTagger::TestTagger(int inputs, int scheme_, unsigned workers) : n_inputs(inputs), channel_scheme(scheme_) {
  if (scheme_ != CT_CHANNEL_NUMBER_SCHEME_ZERO && scheme_ != CT_CHANNEL_NUMBER_SCHEME_ONE)
    throw std::invalid_argument("TestTagger needs the ZERO or the ONE scheme");
  spare.reserve(64);
  startWorkers(workers);
}

TestTagger::~TestTagger() {
  stopWorkers();
}

void TestTagger::push(std::vector<Tag> tags, std::int64_t begin_time, std::int64_t end_time) {
  {
    std::lock_guard<std::mutex> guard(queue_mutex);
    queue.push_back(Block{std::move(tags), begin_time, end_time});
    ++pushed;
    last_end = end_time;
  }
  wakeWorker();
}

void TestTagger::pushCopy(const std::vector<Tag> &tags, std::int64_t begin_time, std::int64_t end_time) {
  std::vector<Tag> copy;
  {
    std::lock_guard<std::mutex> guard(queue_mutex);
    if (!spare.empty()) {
      copy.swap(spare.back());
      spare.pop_back();
    }
  }
  copy.assign(tags.begin(), tags.end());
  push(std::move(copy), begin_time, end_time);
}

void TestTagger::push(std::vector<Tag> tags, std::int64_t end_time) {
  push(std::move(tags), lastEndTime(), end_time);
}

void TestTagger::pushAndWait(std::vector<Tag> tags, std::int64_t begin_time, std::int64_t end_time) {
  push(std::move(tags), begin_time, end_time);
  waitUntilDone();
}

void TestTagger::pushAndWait(std::vector<Tag> tags, std::int64_t end_time) {
  push(std::move(tags), end_time);
  waitUntilDone();
}

void TestTagger::waitUntilDone() {
  std::unique_lock<std::mutex> guard(queue_mutex);
  const std::uint64_t target = pushed;
  done_condition.wait(guard, [&] { return completed >= target; });
}

void TestTagger::pushCut(const std::vector<Tag> &tags, const std::vector<std::size_t> &cuts, std::int64_t begin_time,
                         std::int64_t end_time) {
  std::size_t from = 0;
  std::int64_t block_begin = begin_time;
  for (std::size_t cut : cuts) {
    cut = std::min(cut, tags.size());
    if (cut < from)
      continue;
    const std::int64_t block_end = cut < tags.size() ? tags[cut].time : end_time;
    push(std::vector<Tag>(tags.begin() + static_cast<std::ptrdiff_t>(from),
                          tags.begin() + static_cast<std::ptrdiff_t>(cut)),
         block_begin, block_end);
    from = cut;
    block_begin = block_end;
  }
  push(std::vector<Tag>(tags.begin() + static_cast<std::ptrdiff_t>(from), tags.end()), block_begin, end_time);
}

void TestTagger::setAutoFeed(bool on, std::int64_t span) {
  {
    std::lock_guard<std::mutex> guard(queue_mutex);
    auto_feed = on;
    auto_span = span;
  }
  wakeWorker();
}

std::int64_t TestTagger::lastEndTime() {
  std::lock_guard<std::mutex> guard(queue_mutex);
  return last_end;
}

ChronotickRunner::ReadResult TestTagger::readBlock(Worker &worker, std::unique_lock<std::mutex> &lock,
                                                   std::uint32_t fence, const std::function<void()> &done) {
  std::unique_lock<std::mutex> guard(queue_mutex);
  // The engine sampled `fence` before this call. If a start or clear took a
  // fresh fence since, sample again: a block pushed after a start must count.
  // (Checked with the queue locked: a block seen here was pushed after any
  // start that its pusher made before.)
  if (!queue.empty() && getFence(false) != fence)
    return ReadResult::TryAgainSoon;
  if (queue.empty()) {
    if (!auto_feed)
      return ReadResult::Idle;
    // An idle instrument still delivers empty blocks, about one per millisecond.
    guard.unlock();
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
    guard.lock();
    if (!queue.empty() || !auto_feed)
      return ReadResult::TryAgainSoon;
    worker.tags.clear();
    worker.begin_time = last_end;
    worker.end_time = last_end + auto_span;
    last_end = worker.end_time;
    worker.sequence = ++pushed;
    ++handed;
  } else {
    Block &block = queue.front();
    // Swapped only when that doesn't shrink the worker's vector, so that once
    // warm the workers allocate nothing, as with a real source; else copied.
    if (block.tags.capacity() >= worker.tags.capacity())
      worker.tags.swap(block.tags);
    else
      worker.tags.assign(block.tags.begin(), block.tags.end());
    worker.begin_time = block.begin_time;
    worker.end_time = block.end_time;
    if (block.tags.capacity() != 0 && spare.size() < 64)
      spare.push_back(std::move(block.tags));
    queue.pop_front();
    worker.sequence = ++handed;
  }
  guard.unlock();
  worker.fence = fence;
  done();
  return ReadResult::Delivered;
}

void TestTagger::blockDone(const Worker &worker) {
  {
    std::lock_guard<std::mutex> guard(queue_mutex);
    completed = std::max(completed, worker.sequence);
  }
  done_condition.notify_all();
}

bool TestTagger::isPhysical(std::int32_t channel) const {
  if (channel_scheme == CT_CHANNEL_NUMBER_SCHEME_ONE)
    return channel != 0 && channel >= -n_inputs && channel <= n_inputs;
  return channel >= 0 && channel < 2 * n_inputs;
}

std::int32_t TestTagger::getInvertedChannel(std::int32_t channel) {
  if (!isPhysical(channel))
    return CHANNEL_UNUSED;
  if (channel_scheme == CT_CHANNEL_NUMBER_SCHEME_ONE)
    return -channel;
  return channel < n_inputs ? channel + n_inputs : channel - n_inputs;
}

bool TestTagger::isUnusedChannel(std::int32_t channel) {
  return channel == CHANNEL_UNUSED || (channel_scheme == CT_CHANNEL_NUMBER_SCHEME_ZERO && channel == -1);
}

std::string TestTagger::getConfiguration() {
  return "{\"tagger\": \"test\", \"inputs\": " + std::to_string(n_inputs) +
         ", \"scheme\": " + std::to_string(channel_scheme) + "}";
}

namespace {
template <class V> V valueOr(const std::map<std::int32_t, V> &values, std::int32_t channel, V otherwise) {
  auto it = values.find(channel);
  return it == values.end() ? otherwise : it->second;
}
} // namespace

// Settings are only stored: the test source applies none of them.
void TestTagger::setInputDelay(std::int32_t channel, std::int64_t delay) {
  std::lock_guard<std::mutex> guard(config_mutex);
  delays[channel] = delay;
}
std::int64_t TestTagger::getInputDelay(std::int32_t channel) {
  std::lock_guard<std::mutex> guard(config_mutex);
  return valueOr<std::int64_t>(delays, channel, 0);
}
std::int64_t TestTagger::setDeadtime(std::int32_t channel, std::int64_t deadtime) {
  std::lock_guard<std::mutex> guard(config_mutex);
  return deadtimes[channel] = deadtime;
}
std::int64_t TestTagger::getDeadtime(std::int32_t channel) {
  std::lock_guard<std::mutex> guard(config_mutex);
  return valueOr<std::int64_t>(deadtimes, channel, 0);
}
void TestTagger::setTestSignal(std::vector<std::int32_t> channels, bool enable) {
  for (std::int32_t channel : channels)
    setTestSignal(channel, enable);
}
void TestTagger::setTestSignal(std::int32_t channel, bool enable) {
  std::lock_guard<std::mutex> guard(config_mutex);
  test_signals[channel] = enable;
}
bool TestTagger::getTestSignal(std::int32_t channel) {
  std::lock_guard<std::mutex> guard(config_mutex);
  return valueOr(test_signals, channel, false);
}
std::int64_t TestTagger::getOverflows() {
  std::lock_guard<std::mutex> guard(config_mutex);
  return overflows;
}
void TestTagger::clearOverflows() {
  getOverflowsAndClear();
}
std::int64_t TestTagger::getOverflowsAndClear() {
  std::lock_guard<std::mutex> guard(config_mutex);
  return std::exchange(overflows, 0);
}

std::int32_t TestTagger::getNewVirtualChannel() {
  std::lock_guard<std::mutex> guard(config_mutex);
  return next_virtual++;
}

void TestTagger::registerChannel(std::int32_t channel) {
  std::lock_guard<std::mutex> guard(config_mutex);
  if (!isPhysical(channel) && !(channel >= 1 && channel < next_virtual)) {
    CT_WARNING("Tried to register an unknown channel");
    return;
  }
  ++registered[channel];
}

void TestTagger::unregisterChannel(std::int32_t channel) {
  std::lock_guard<std::mutex> guard(config_mutex);
  auto it = registered.find(channel);
  if (it == registered.end()) {
    if (!isPhysical(channel) && !(channel >= 1 && channel < next_virtual))
      CT_WARNING("Tried to unregister an unknown channel");
    return;
  }
  if (--it->second == 0)
    registered.erase(it);
}

int TestTagger::registrations(std::int32_t channel) {
  std::lock_guard<std::mutex> guard(config_mutex);
  return valueOr(registered, channel, 0);
}

std::vector<std::size_t> randomCuts(std::size_t n_tags, std::size_t n_cuts, std::uint64_t seed) {
  std::mt19937_64 rng(seed);
  std::uniform_int_distribution<std::size_t> pick(0, n_tags);
  std::vector<std::size_t> cuts(n_cuts);
  for (auto &cut : cuts)
    cut = pick(rng);
  std::sort(cuts.begin(), cuts.end());
  return cuts;
}

} // namespace chronotick::testing
