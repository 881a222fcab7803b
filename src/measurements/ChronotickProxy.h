#pragma once

#include <chronotick/ChronotickBase.h>

#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <vector>

namespace chronotick {

class SynchronizedMeasurements;

// Stands between a group's measurements and the real tagger. Everything is
// passed through unchanged, except that a measurement enrolling through the
// proxy joins the group and does not start by itself.
class ChronotickProxy : public ChronotickBase {
public:
  ChronotickProxy(ChronotickBase *tagger, SynchronizedMeasurements *group);
  ~ChronotickProxy() override;

  std::uint32_t getFence(bool alloc = true) override;
  bool waitForFence(std::uint32_t fence, std::int32_t timeout = -1) override;
  void sync() override;
  std::int32_t getInvertedChannel(std::int32_t channel) override;
  bool isUnusedChannel(std::int32_t channel) override;
  void runSynchronized(const std::map<IteratorBase *, std::function<void(IteratorBase *)>> &callbacks,
                       bool block = true) override;
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
  IteratorSlot *addIterator(IteratorBase *iterator) override;
  std::int32_t getNewVirtualChannel() override;
  void registerChannel(std::int32_t channel) override;
  void unregisterChannel(std::int32_t channel) override;

  ChronotickBase *realTagger() const { return tagger; }

private:
  ChronotickBase *tagger;
  SynchronizedMeasurements *group;
};

} // namespace chronotick
