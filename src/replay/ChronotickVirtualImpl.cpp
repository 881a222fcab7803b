#include "replay/ChronotickVirtualImpl.h"

#include "engine/Log.h"

#include <algorithm>
#include <chrono>
#include <fstream>
#include <stdexcept>

namespace chronotick {

ChronotickVirtual::~ChronotickVirtual() = default;

namespace {
bool tagBefore(const Tag &tag, std::int64_t time) {
  return tag.time < time;
}

// Stream time of a recorded block. A damaged file may give any two times:
// the difference wraps instead of overflowing, and a block never runs back.
std::int64_t spanOf(std::int64_t begin, std::int64_t end) {
  return std::max<std::int64_t>(std::int64_t(std::uint64_t(end) - std::uint64_t(begin)), 0);
}

} // namespace

ChronotickVirtualImpl::ChronotickVirtualImpl() : scheme(getChronotickChannelNumberScheme()) {
  pacer.anchor(nowNs(), 0);
  startWorkers();
}

ChronotickVirtualImpl::~ChronotickVirtualImpl() {
  {
    // Cuts short any sleep of a worker, so that the workers end promptly, and
    // wakes every waitForCompletion, which then returns.
    std::lock_guard<std::mutex> guard(queue_mutex);
    closing = true;
    work_condition.notify_all();
    completion_condition.notify_all();
  }
  stopWorkers(); // ends the sync() that a woken waitForCompletion may be in
  // The waiters still touch this tagger on their way out.
  std::unique_lock<std::mutex> lock(queue_mutex);
  completion_condition.wait(lock, [this] { return completion_waiters == 0; });
}

std::int64_t ChronotickVirtualImpl::nowNs() {
  return std::chrono::duration_cast<std::chrono::nanoseconds>(std::chrono::steady_clock::now().time_since_epoch())
      .count();
}

void ChronotickVirtualImpl::signalWork() {
  ++work_generation;
  work_condition.notify_all();
}

void ChronotickVirtualImpl::drainQueue() {
  while (!tasks.empty()) {
    completed_id = tasks.front().id;
    tasks.pop_front();
  }
  completion_condition.notify_all();
}

std::uint64_t ChronotickVirtualImpl::replay(const std::string &file, std::int64_t begin, std::int64_t duration,
                                            bool queue) {
  const std::string name = ctbin::partName(file, 0);
  std::ifstream in(name, std::ios::binary);
  if (!in)
    throw std::runtime_error("File '" + name + "' could not be opened.");
  std::uint32_t magic = 0;
  if (!in.read(reinterpret_cast<char *>(&magic), sizeof(magic)) || magic != ctbin::MAGIC)
    throw std::runtime_error("File format error. Files must be written via the FileWriter class.");
  in.close();

  std::uint64_t id;
  {
    std::lock_guard<std::mutex> guard(queue_mutex);
    if (!queue)
      drainQueue();
    ReplayTask task;
    task.base_name = file;
    task.begin = begin;
    task.duration = duration;
    task.id = id = ++last_id;
    task.fence = getFence(false);
    tasks.push_back(std::move(task));
    signalWork();
  }
  wakeWorker();
  return id;
}

void ChronotickVirtualImpl::stop() {
  std::lock_guard<std::mutex> guard(queue_mutex);
  current_file.reset();
  drainQueue();
  signalWork();
}

bool ChronotickVirtualImpl::waitForCompletion(std::uint64_t id, std::int32_t timeout) {
  std::unique_lock<std::mutex> lock(queue_mutex);
  // Counted until it has left, so that the destructor waits for it.
  ++completion_waiters;
  if (id == 0)
    id = last_id;
  auto over = [&] { return closing || id <= completed_id; };
  if (timeout < 0)
    completion_condition.wait(lock, over);
  else if (timeout > 0)
    completion_condition.wait_for(lock, std::chrono::milliseconds(timeout), over);
  const bool finished = id <= completed_id;
  lock.unlock();
  sync();
  lock.lock();
  if (--completion_waiters == 0 && closing)
    completion_condition.notify_all();
  return finished;
}

int ChronotickVirtualImpl::completionWaitersForTesting() {
  std::lock_guard<std::mutex> guard(queue_mutex);
  return completion_waiters;
}

void ChronotickVirtualImpl::setReplaySpeed(double new_speed) {
  if (new_speed > 0.0 && new_speed < 0.1)
    throw std::runtime_error("Slow replay speed between 0.0 and 0.1 is not supported.");
  {
    std::lock_guard<std::mutex> guard(speed_mutex);
    speed = new_speed;
    pacer.anchor(nowNs(), stream_time.load());
  }
  {
    std::lock_guard<std::mutex> guard(queue_mutex);
    signalWork();
  }
  wakeWorker();
}

double ChronotickVirtualImpl::getReplaySpeed() {
  std::lock_guard<std::mutex> guard(speed_mutex);
  return speed;
}

ChronotickRunner::ReadResult ChronotickVirtualImpl::readBlock(Worker &worker, std::unique_lock<std::mutex> &lock,
                                                              std::uint32_t fence, const std::function<void()> &done) {
  worker.fence = fence;
  if (!fill(worker))
    return ReadResult::TryAgainSoon;
  // Hand the read mutex over to the emulation stage: the next worker may read
  // while this one emulates, and blocks keep their order.
  std::unique_lock<std::mutex> post(post_mutex);
  lock.swap(post);
  post.unlock();
  done();
  emulator.applySettings();
  emulator.process(worker.tags, worker.begin_time, worker.end_time);
  return ReadResult::Delivered;
}

void ChronotickVirtualImpl::advanceStreamTime(Worker &worker, std::int64_t length) {
  const std::int64_t begin = stream_time.load(std::memory_order_relaxed);
  worker.begin_time = begin;
  worker.end_time = begin + length;
  stream_time.store(begin + length, std::memory_order_relaxed);
}

ChronotickVirtualImpl::Pace ChronotickVirtualImpl::pace(std::unique_lock<std::mutex> &queue_lock, std::int64_t &step) {
  std::unique_lock<std::mutex> speed_lock(speed_mutex);
  if (speed == 0.0 || (speed < 0.0 && tasks.empty())) {
    // Paused: empty blocks of no span, so that fences and synchronized calls
    // still pass. New work cuts the sleep short.
    speed_lock.unlock();
    const std::uint64_t generation = work_generation;
    work_condition.wait_for(queue_lock, std::chrono::nanoseconds(IDLE_SLEEP_NS),
                            [&] { return closing || work_generation != generation; });
    return Pace::Paused;
  }
  if (speed < 0.0) {
    step = ReplayPacer::BLOCK_LENGTH;
    return Pace::Go;
  }
  step = ReplayPacer::step(speed);
  const std::int64_t wait = pacer.delay(nowNs(), stream_time.load(std::memory_order_relaxed), speed);
  speed_lock.unlock();
  if (wait > 0) {
    // A new speed or a change of the queue cuts the wait short: the block
    // is then worked out again under the new settings.
    const std::uint64_t generation = work_generation;
    work_condition.wait_for(queue_lock, std::chrono::nanoseconds(wait),
                            [&] { return closing || work_generation != generation; });
    if (!closing && work_generation != generation)
      return Pace::Again;
  }
  return Pace::Go;
}

bool ChronotickVirtualImpl::fill(Worker &worker) {
  worker.tags.clear();
  std::unique_lock<std::mutex> queue_lock(queue_mutex);
  std::int64_t step = 0;
  switch (pace(queue_lock, step)) {
  case Pace::Paused:
    queue_lock.unlock();
    advanceStreamTime(worker, 0);
    return true;
  case Pace::Again:
    return false;
  case Pace::Go:
    break;
  }
  if (tasks.empty()) {
    // Only at a positive speed: time goes on without tags.
    queue_lock.unlock();
    advanceStreamTime(worker, step);
    return true;
  }
  // The queue lock stays held while the task and the current file are used:
  // stop() and replay(queue = false) can't pull them away meanwhile.
  return playTask(worker, tasks.front(), step);
}

bool ChronotickVirtualImpl::playTask(Worker &worker, ReplayTask &task, std::int64_t step) {
  if (static_cast<std::int32_t>(task.fence - worker.fence) > 0)
    return false; // this block was read before the replay was asked for

  if (task.duration == 0) {
    task.reading = false;
  } else if (task.reading && task.begin < 0) {
    std::int64_t length = std::min(step, -task.begin);
    if (task.duration >= 0) {
      length = std::min(length, task.duration);
      task.duration -= length;
    }
    task.begin += length;
    advanceStreamTime(worker, length);
    return true;
  }

  if (!task.opened) {
    task.opened = true;
    if (!openPart(task))
      task.reading = false; // not even the recording's first file could be read
  }

  if (task.reading) {
    if (current_file && deliverFileBlock(worker, task))
      return true;
    // This part is exhausted or unreadable: go on with the next one of the
    // same recording. Another worker asks again for the block.
    if (openPart(task))
      return false;
    task.reading = false; // the recording ends here
  }

  if (task.duration > 0) {
    // The recording ended before the requested duration.
    const std::int64_t length = std::min(step, task.duration);
    task.duration -= length;
    advanceStreamTime(worker, length);
    return true;
  }

  completed_id = task.id;
  tasks.pop_front();
  completion_condition.notify_all();
  return false;
}

bool ChronotickVirtualImpl::openPart(ReplayTask &task) {
  const bool first = task.part_index == 0;
  const std::string name = ctbin::partName(task.base_name, task.part_index++);
  try {
    // Part 0 was checked by replay(); a later part that isn't there ends the recording quietly.
    if (!first && !std::ifstream(name, std::ios::binary).is_open())
      return false;
    auto part = std::make_unique<TagFileReader>(name, true);
    if (first) {
      current_file_id = part->getFileId();
    } else if (part->getFileId() != current_file_id) {
      CT_ERROR("File '%s' matches the naming schema, but was not written in the same FileWriter. Skipped.",
               name.c_str());
      return false;
    }
    current_file = std::move(part);
    return true;
  } catch (...) {
    CT_ERROR("File '%s' could not be read: %s. Replay goes on after it.", name.c_str(), currentExceptionText().c_str());
  }
  if (first)
    current_file.reset(); // never the previous recording's file for this task
  return false;
}

bool ChronotickVirtualImpl::deliverFileBlock(Worker &worker, ReplayTask &task) {
  std::vector<Tag> &tags = worker.tags;
  std::int64_t block_begin = 0;
  std::int64_t block_end = 0;
  const std::int64_t start = stream_time.load(std::memory_order_relaxed);
  try {
    // A positive begin seeks: whole blocks are skipped undecoded.
    while (current_file->getBlockSpan(block_begin, block_end) && task.begin >= spanOf(block_begin, block_end)) {
      task.begin -= spanOf(block_begin, block_end);
      current_file->skipBlock();
    }
    if (!current_file->getBlockSpan(block_begin, block_end))
      return false;
    if (spanOf(block_begin, block_end) > ctbin::MAX_BLOCK_TIME - start) {
      // Measurements add windows to stream times: those must not overflow.
      CT_ERROR("The replay reached the end of its time range; the rest of the recording '%s' is skipped.",
               task.base_name.c_str());
      tags.clear();
      current_file->stopReading();
      return false;
    }
    std::int64_t counted = 0;
    const bool decoded = current_file->decodeBlock(tags, start - task.begin, counted);
    overflows += counted;
    if (!decoded)
      return false;
  } catch (...) {
    // Reading may run out of memory on a block that claims too much: the
    // part ends here, and the next block from elsewhere starts with an Error.
    CT_ERROR("A block of the recording '%s' could not be read: %s. The rest of this part is skipped.",
             task.base_name.c_str(), currentExceptionText().c_str());
    tags.clear();
    current_file->stopReading();
    return false;
  }

  std::int64_t length = spanOf(block_begin, block_end);
  if (task.begin != 0) {
    length -= task.begin;
    task.begin = 0;
    tags.erase(tags.begin(), std::lower_bound(tags.begin(), tags.end(), start, tagBefore));
  }
  if (task.duration >= 0) {
    if (task.duration < length) {
      tags.erase(std::lower_bound(tags.begin(), tags.end(), start + task.duration, tagBefore), tags.end());
      length = task.duration;
    }
    task.duration -= length;
  }
  if ((block_begin != previous_end_time || previous_file_id != current_file_id) && !first_block_pending) {
    // A gap in the recording, or another recording: measurements drop what they held.
    tags.insert(tags.begin(), Tag{Tag::Type::Error, 0, 0, CHANNEL_UNUSED, start});
    ++overflows;
  }
  previous_end_time = block_end;
  previous_file_id = current_file_id;
  first_block_pending = false;
  advanceStreamTime(worker, length);
  return true;
}

// Channels

bool ChronotickVirtualImpl::isKnownChannel(std::int32_t channel) const {
  // A recording may hold any channel number; only "no channel" and, outside
  // the ZERO scheme, 0 are never channels.
  return channel != CHANNEL_UNUSED && (channel != 0 || scheme == CT_CHANNEL_NUMBER_SCHEME_ZERO);
}

std::int32_t ChronotickVirtualImpl::getInvertedChannel(std::int32_t channel) {
  {
    std::lock_guard<std::mutex> guard(queue_mutex);
    if (current_file)
      return current_file->getInvertedChannel(channel);
  }
  if (scheme == CT_CHANNEL_NUMBER_SCHEME_ZERO)
    CT_ERROR("getInvertedChannel(%d) called prior to replaying a file with the zero channel numbering scheme. How "
             "many inputs has your Chronotick?",
             channel);
  return -channel;
}

bool ChronotickVirtualImpl::isUnusedChannel(std::int32_t channel) {
  if (channel == CHANNEL_UNUSED)
    return true;
  if (channel != -1)
    return false;
  std::lock_guard<std::mutex> guard(queue_mutex);
  if (current_file)
    return current_file->getInvertedChannel(channel) == CHANNEL_UNUSED;
  return scheme == CT_CHANNEL_NUMBER_SCHEME_ZERO;
}

std::string ChronotickVirtualImpl::getConfiguration() {
  std::lock_guard<std::mutex> guard(queue_mutex);
  return current_file ? current_file->getConfiguration() : std::string();
}

void ChronotickVirtualImpl::setInputDelay(std::int32_t channel, std::int64_t delay) {
  emulator.setInputDelay(channel, delay);
}

std::int64_t ChronotickVirtualImpl::getInputDelay(std::int32_t channel) {
  return emulator.getInputDelay(channel);
}

std::int64_t ChronotickVirtualImpl::setDeadtime(std::int32_t channel, std::int64_t deadtime) {
  return emulator.setDeadtime(channel, deadtime);
}

std::int64_t ChronotickVirtualImpl::getDeadtime(std::int32_t channel) {
  return emulator.getDeadtime(channel);
}

void ChronotickVirtualImpl::setTestSignal(std::vector<std::int32_t> channels, bool enable) {
  if (scheme == CT_CHANNEL_NUMBER_SCHEME_ZERO)
    throw std::runtime_error("setTestSignal called with the zero channel numbering scheme. How many inputs has your "
                             "virtual Chronotick?");
  emulator.setTestSignal(channels, enable);
}

void ChronotickVirtualImpl::setTestSignal(std::int32_t channel, bool enable) {
  setTestSignal(std::vector<std::int32_t>{channel}, enable);
}

bool ChronotickVirtualImpl::getTestSignal(std::int32_t channel) {
  return emulator.getTestSignal(channel);
}

std::int64_t ChronotickVirtualImpl::getOverflows() {
  return overflows.load();
}

void ChronotickVirtualImpl::clearOverflows() {
  overflows.exchange(0);
}

std::int64_t ChronotickVirtualImpl::getOverflowsAndClear() {
  return overflows.exchange(0);
}

std::int32_t ChronotickVirtualImpl::getNewVirtualChannel() {
  std::lock_guard<std::mutex> guard(config_mutex);
  return next_virtual_channel++;
}

void ChronotickVirtualImpl::registerChannel(std::int32_t channel) {
  if (!isKnownChannel(channel)) {
    CT_WARNING("Tried to register an unknown channel");
    return;
  }
  std::lock_guard<std::mutex> guard(config_mutex);
  ++registrations[channel];
}

void ChronotickVirtualImpl::unregisterChannel(std::int32_t channel) {
  if (!isKnownChannel(channel)) {
    CT_WARNING("Tried to unregister an unknown channel");
    return;
  }
  std::lock_guard<std::mutex> guard(config_mutex);
  auto it = registrations.find(channel);
  if (it != registrations.end() && --it->second <= 0)
    registrations.erase(it);
}

} // namespace chronotick
