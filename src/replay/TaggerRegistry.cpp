#include "replay/TaggerRegistry.h"

#include <chronotick/Chronotick.h>

#include "engine/ChronotickRunner.h"
#include "engine/Log.h"
#include "storage/TagFileFormat.h"

#include <stdexcept>
#include <thread>
#include <utility>

namespace chronotick {

// Its destructor runs at exit, before anything that was set up ahead of the
// registry: the library's log and the integrity keys are, on purpose.
struct RegistryExit {
  TaggerRegistry &registry;
  ~RegistryExit() { registry.releaseAtExit(); }
};

TaggerRegistry &TaggerRegistry::instance() {
  // Never destroyed, so that a free after exit handlers ran finds it empty.
  static TaggerRegistry *registry = [] {
    ctbin::prepareIntegrity();
    return new TaggerRegistry;
  }();
  static RegistryExit at_exit{*registry};
  return *registry;
}

void TaggerRegistry::enter(ChronotickBase *key, Chronotick *hardware, ChronotickVirtual *replay) {
  Entry &entry = registry[key];
  entry.hardware = hardware;
  entry.replay = replay;
  entry.references = 1;
}

Chronotick *TaggerRegistry::findHardware(const std::string &serial) {
  for (auto &[key, entry] : registry)
    if (entry.hardware && entry.hardware->getSerial() == serial)
      return entry.hardware;
  return nullptr;
}

void TaggerRegistry::addReference(ChronotickBase *key, Chronotick *hardware) {
  Entry &entry = registry[key];
  entry.hardware = hardware;
  ++entry.references;
}

void TaggerRegistry::checkEntry(const Entry &entry) {
  if ((entry.hardware == nullptr) == (entry.replay == nullptr))
    throw std::runtime_error("instance must point to a real XOR or virtual Chronotick");
}

void TaggerRegistry::destroy(ChronotickBase *tagger) {
  if (ChronotickRunner::currentWorkerTagger() != tagger) {
    delete tagger; // through the virtual destructor
    return;
  }
  // The worker that asked can't join itself: it finishes its block while
  // another thread takes the tagger down.
  {
    std::lock_guard<std::mutex> guard(deferred_mutex);
    ++deferred;
  }
  std::thread([this, tagger] {
    delete tagger;
    std::lock_guard<std::mutex> guard(deferred_mutex);
    if (--deferred == 0)
      deferred_condition.notify_all();
  }).detach();
}

bool TaggerRegistry::release(ChronotickBase *tagger) {
  std::lock_guard<std::mutex> guard(instance_mutex);
  auto it = registry.find(tagger);
  if (it == registry.end())
    return false;
  const bool is_default = it->second.hardware != nullptr && it->second.hardware == default_instance;
  if (it->second.references > 0)
    --it->second.references;
  if (it->second.references > 0)
    return false;
  checkEntry(it->second);
  destroy(it->first);
  registry.erase(it);
  if (is_default)
    default_instance = nullptr;
  return true;
}

void TaggerRegistry::releaseAll() {
  std::lock_guard<std::mutex> guard(instance_mutex);
  while (!registry.empty()) {
    auto it = registry.begin();
    checkEntry(it->second);
    ChronotickBase *tagger = it->first;
    registry.erase(it);
    destroy(tagger);
  }
  default_instance = nullptr;
}

void TaggerRegistry::releaseAtExit() {
  try {
    releaseAll();
  } catch (const std::exception &e) {
    CT_ERROR("Taggers could not be freed at exit: %s", e.what());
  }
  // On a worker, the destruction under way is this thread's own tagger's,
  // which waits for this thread: let the process end without it.
  if (ChronotickRunner::currentWorkerTagger())
    return;
  std::unique_lock<std::mutex> lock(deferred_mutex);
  deferred_condition.wait(lock, [this] { return deferred == 0; });
}

} // namespace chronotick
