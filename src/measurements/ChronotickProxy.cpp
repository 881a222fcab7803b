#include "measurements/ChronotickProxy.h"

#include <chronotick/IteratorBase.h>
#include <chronotick/SynchronizedMeasurements.h>

#include <utility>

namespace chronotick {

ChronotickProxy::ChronotickProxy(ChronotickBase *tagger_, SynchronizedMeasurements *group_)
    : tagger(tagger_), group(group_) {}

ChronotickProxy::~ChronotickProxy() = default;

std::uint32_t ChronotickProxy::getFence(bool alloc) {
  return tagger->getFence(alloc);
}

bool ChronotickProxy::waitForFence(std::uint32_t fence, std::int32_t timeout) {
  return tagger->waitForFence(fence, timeout);
}

void ChronotickProxy::sync() {
  tagger->sync();
}

std::int32_t ChronotickProxy::getInvertedChannel(std::int32_t channel) {
  return tagger->getInvertedChannel(channel);
}

bool ChronotickProxy::isUnusedChannel(std::int32_t channel) {
  return tagger->isUnusedChannel(channel);
}

void ChronotickProxy::runSynchronized(const std::map<IteratorBase *, std::function<void(IteratorBase *)>> &callbacks,
                                      bool block) {
  tagger->runSynchronized(callbacks, block);
}

std::string ChronotickProxy::getConfiguration() {
  return tagger->getConfiguration();
}

void ChronotickProxy::setInputDelay(std::int32_t channel, std::int64_t delay) {
  tagger->setInputDelay(channel, delay);
}

std::int64_t ChronotickProxy::getInputDelay(std::int32_t channel) {
  return tagger->getInputDelay(channel);
}

std::int64_t ChronotickProxy::setDeadtime(std::int32_t channel, std::int64_t deadtime) {
  return tagger->setDeadtime(channel, deadtime);
}

std::int64_t ChronotickProxy::getDeadtime(std::int32_t channel) {
  return tagger->getDeadtime(channel);
}

void ChronotickProxy::setTestSignal(std::vector<std::int32_t> channels, bool enable) {
  tagger->setTestSignal(std::move(channels), enable);
}

void ChronotickProxy::setTestSignal(std::int32_t channel, bool enable) {
  tagger->setTestSignal(channel, enable);
}

bool ChronotickProxy::getTestSignal(std::int32_t channel) {
  return tagger->getTestSignal(channel);
}

std::int64_t ChronotickProxy::getOverflows() {
  return tagger->getOverflows();
}

void ChronotickProxy::clearOverflows() {
  tagger->clearOverflows();
}

std::int64_t ChronotickProxy::getOverflowsAndClear() {
  return tagger->getOverflowsAndClear();
}

IteratorSlot *ChronotickProxy::addIterator(IteratorBase *iterator) {
  IteratorSlot *slot = tagger->addIterator(iterator);
  // Runs inside the IteratorBase constructor, before finishInitialization:
  // the member waits for the group's start.
  group->enrol(iterator, true);
  return slot;
}

std::int32_t ChronotickProxy::getNewVirtualChannel() {
  return tagger->getNewVirtualChannel();
}

void ChronotickProxy::registerChannel(std::int32_t channel) {
  tagger->registerChannel(channel);
}

void ChronotickProxy::unregisterChannel(std::int32_t channel) {
  tagger->unregisterChannel(channel);
}

} // namespace chronotick
