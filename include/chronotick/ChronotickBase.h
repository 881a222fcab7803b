#pragma once

#include <chronotick/ChannelScheme.h>
#include <chronotick/Export.h>

#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <vector>

namespace chronotick {

class IteratorBase;
struct IteratorSlot;

// The abstract source of tags: what a measurement needs of a tagger and what
// a client may ask of any tagger. The order of the operations is part of the
// binary interface.
class CHRONOTICK_API ChronotickBase {
public:
  // A fresh fence (alloc) or the last one handed out. Blocks read after a
  // fresh fence was taken carry it.
  virtual std::uint32_t getFence(bool alloc = true) = 0;
  // True once a block carrying `fence` (or a later one) has left the chain.
  // timeout in milliseconds: 0 only tests, negative waits without limit.
  virtual bool waitForFence(std::uint32_t fence, std::int32_t timeout = -1) = 0;
  // Returns when every tag delivered before the call has passed all iterators.
  virtual void sync() = 0;
  virtual std::int32_t getInvertedChannel(std::int32_t channel) = 0;
  virtual bool isUnusedChannel(std::int32_t channel) = 0;
  // Calls each callback with its iterator during the next pass, at the
  // iterator's place in the chain.
  virtual void runSynchronized(const std::map<IteratorBase *, std::function<void(IteratorBase *)>> &callbacks,
                               bool block = true) = 0;
  virtual std::string getConfiguration() = 0;
  virtual void setInputDelay(std::int32_t channel, std::int64_t delay) = 0;
  virtual std::int64_t getInputDelay(std::int32_t channel) = 0;
  virtual std::int64_t setDeadtime(std::int32_t channel, std::int64_t deadtime) = 0;
  virtual std::int64_t getDeadtime(std::int32_t channel) = 0;
  virtual void setTestSignal(std::vector<std::int32_t> channels, bool enable) = 0;
  virtual void setTestSignal(std::int32_t channel, bool enable) = 0;
  virtual bool getTestSignal(std::int32_t channel) = 0;
  virtual std::int64_t getOverflows() = 0;
  virtual void clearOverflows() = 0;
  virtual std::int64_t getOverflowsAndClear() = 0;
  virtual ~ChronotickBase();
  virtual IteratorSlot *addIterator(IteratorBase *iterator) = 0;
  virtual std::int32_t getNewVirtualChannel() = 0;
  virtual void registerChannel(std::int32_t channel) = 0;
  virtual void unregisterChannel(std::int32_t channel) = 0;

protected:
  ChronotickBase() = default;
};

} // namespace chronotick
