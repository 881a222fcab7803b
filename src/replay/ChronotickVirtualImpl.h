#pragma once

#include <chronotick/ChronotickVirtual.h>

#include "engine/ChronotickRunner.h"
#include "replay/ChannelEmulator.h"
#include "replay/ReplayPacer.h"
#include "storage/TagFileReader.h"

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <string>

namespace chronotick {

// The replay tagger: the engine fed from a queue of .ctbin recordings, paced
// against the steady clock, with per-channel emulation on every block.
class ChronotickVirtualImpl : public ChronotickVirtual, public ChronotickRunner {
public:
  // Wall time slept for each empty block while paused.
  static constexpr std::int64_t IDLE_SLEEP_NS = 20000000;

  ChronotickVirtualImpl();
  ~ChronotickVirtualImpl() override;

  // ChronotickVirtual
  std::uint64_t replay(const std::string &file, std::int64_t begin = 0, std::int64_t duration = -1,
                       bool queue = true) override;
  void stop() override;
  bool waitForCompletion(std::uint64_t id = 0, std::int32_t timeout = -1) override;
  void setReplaySpeed(double speed) override;
  double getReplaySpeed() override;

  // ChronotickBase
  std::int32_t getInvertedChannel(std::int32_t channel) override;
  bool isUnusedChannel(std::int32_t channel) override;
  std::string getConfiguration() override;
  void setInputDelay(std::int32_t channel, std::int64_t delay) override;
  std::int64_t getInputDelay(std::int32_t channel) override;
  std::int64_t setDeadtime(std::int32_t channel, std::int64_t deadtime) override;
  std::int64_t getDeadtime(std::int32_t channel) override;
  void setTestSignal(std::vector<std::int32_t> channels, bool enable) override;
  void setTestSignal(std::int32_t channel, bool enable) override;
  bool getTestSignal(std::int32_t channel) override;
  std::int64_t getOverflows() override;
  void clearOverflows() override;
  std::int64_t getOverflowsAndClear() override;
  std::int32_t getNewVirtualChannel() override;
  void registerChannel(std::int32_t channel) override;
  void unregisterChannel(std::int32_t channel) override;

  // Test hook: how many waitForCompletion calls are inside this tagger.
  int completionWaitersForTesting();

protected:
  ReadResult readBlock(Worker &worker, std::unique_lock<std::mutex> &lock, std::uint32_t fence,
                       const std::function<void()> &done) override;

private:
  struct ReplayTask {
    std::string base_name;
    std::uint32_t part_index = 0;
    std::int64_t begin = 0;     // < 0: silence still to play; > 0: recording still to skip
    std::int64_t duration = -1; // < 0: to the end
    std::uint64_t id = 0;
    std::uint32_t fence = 0;
    bool reading = true;
    bool opened = false;
  };

  enum class Pace {
    Paused, // nothing may be read now; the idle sleep has passed
    Again,  // the settings changed during the wait: work the block out anew
    Go,     // read now, a block of `step` ps where none comes from a file
  };

  // Makes the worker's next block; false if there is none now. Runs under the read mutex.
  bool fill(Worker &worker);
  // Waits, with the queue lock, until the next block is due at the replay speed.
  Pace pace(std::unique_lock<std::mutex> &queue_lock, std::int64_t &step);
  // The next block of the task at the front of the queue: silence before it,
  // a block of its recording, silence after it, or its end (false, the
  // engine asks again). Queue lock held.
  bool playTask(Worker &worker, ReplayTask &task, std::int64_t step);
  // Opens the task's next part as the current file: false if it isn't there,
  // belongs to another recording or can't be read (logged). Queue lock held.
  bool openPart(ReplayTask &task);
  // The current file's next block into the worker, trimmed to the task's
  // begin and duration; false once the part has no more. Queue lock held.
  bool deliverFileBlock(Worker &worker, ReplayTask &task);
  // Gives the worker's block the next `length` ps of stream time, whatever
  // tags it holds, and moves the stream time on.
  void advanceStreamTime(Worker &worker, std::int64_t length);
  // Ends every queued replay. Queue lock held.
  void drainQueue();
  // Tells a worker waiting for work that there may be some. Queue lock held.
  void signalWork();
  bool isKnownChannel(std::int32_t channel) const;
  static std::int64_t nowNs();

  const int scheme;

  std::mutex config_mutex;
  std::int32_t next_virtual_channel = 257;
  std::map<std::int32_t, int> registrations;

  ChannelEmulator emulator;
  std::mutex post_mutex; // emulation, one block at a time, in read order

  // Queue lock: the task queue, the current file and the replay state of fill.
  std::mutex queue_mutex;
  std::condition_variable completion_condition;
  std::condition_variable work_condition;
  std::uint64_t work_generation = 0;
  bool closing = false;
  int completion_waiters = 0; // waitForCompletion calls on their way out
  std::deque<ReplayTask> tasks;
  std::uint64_t last_id = 0;
  std::uint64_t completed_id = 0;
  std::unique_ptr<TagFileReader> current_file;
  ctbin::FileId current_file_id{};
  ctbin::FileId previous_file_id{};
  std::int64_t previous_end_time = 0;
  bool first_block_pending = true;

  std::mutex speed_mutex; // inside the queue lock
  double speed = -1.0;
  ReplayPacer pacer;

  std::atomic<std::int64_t> stream_time{0}; // where the next block starts, ps
  std::atomic<std::int64_t> overflows{0};
};

} // namespace chronotick
